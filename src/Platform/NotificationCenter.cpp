#include "Platform/NotificationCenter.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace zub {
namespace {

struct Entry {
    Entry(NotificationCenter::ObserverId i, std::string n, NotificationCenter::Observer f)
        : id(i), name(std::move(n)), fn(std::move(f)) {}

    const NotificationCenter::ObserverId id;
    const std::string name;
    const NotificationCenter::Observer fn;

    std::mutex mutex;
    std::condition_variable idle;
    int running = 0;       // guarded by mutex: calls of fn in progress, on any thread
    bool removed = false;  // guarded by mutex
};

// The entries whose observer this thread is running right now (innermost last), so
// that an observer removing itself does not wait for its own call to end.
thread_local std::vector<const Entry*> tRunning;

// Marks one call of an entry as running for as long as it lives, also when the
// observer throws.
class RunningCall {
public:
    explicit RunningCall(Entry& e) : e_(e) { tRunning.push_back(&e_); }
    ~RunningCall() {
        tRunning.pop_back();
        std::lock_guard<std::mutex> lock(e_.mutex);
        if (--e_.running == 0 && e_.removed) e_.idle.notify_all();
    }
    RunningCall(const RunningCall&) = delete;
    RunningCall& operator=(const RunningCall&) = delete;

private:
    Entry& e_;
};

void retire(Entry& e) {
    const auto own = std::count(tRunning.begin(), tRunning.end(), &e);
    std::unique_lock<std::mutex> lock(e.mutex);
    e.removed = true;
    e.idle.wait(lock, [&] { return e.running <= own; });
}

}  // namespace

struct NotificationCenter::Impl {
    mutable std::mutex mutex;
    std::vector<std::shared_ptr<Entry>> entries;  // guarded by mutex, in order of adding
    ObserverId nextId = 1;                        // guarded by mutex
};

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter* center = new NotificationCenter();
    return *center;
}

NotificationCenter::NotificationCenter() : impl_(std::make_unique<Impl>()) {}
NotificationCenter::~NotificationCenter() = default;

NotificationCenter::ObserverId NotificationCenter::addObserver(const std::string& name, Observer observer) {
    if (!observer) return 0;
    std::lock_guard<std::mutex> lock(impl_->mutex);
    const ObserverId id = impl_->nextId++;
    impl_->entries.push_back(std::make_shared<Entry>(id, name, std::move(observer)));
    return id;
}

void NotificationCenter::removeObserver(ObserverId id) {
    std::shared_ptr<Entry> found;
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        auto it = std::find_if(impl_->entries.begin(), impl_->entries.end(),
                               [id](const std::shared_ptr<Entry>& e) { return e->id == id; });
        if (it == impl_->entries.end()) return;
        found = std::move(*it);
        impl_->entries.erase(it);
    }
    retire(*found);
}

void NotificationCenter::removeObservers(const std::string& name) {
    std::vector<std::shared_ptr<Entry>> gone;
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        auto keep = std::stable_partition(impl_->entries.begin(), impl_->entries.end(),
                                          [&](const std::shared_ptr<Entry>& e) {
                                              return !name.empty() && e->name != name;
                                          });
        gone.assign(std::make_move_iterator(keep), std::make_move_iterator(impl_->entries.end()));
        impl_->entries.erase(keep, impl_->entries.end());
    }
    for (auto& e : gone) retire(*e);
}

void NotificationCenter::post(const std::string& name, std::any object, Value userInfo) {
    post(Notification{name, std::move(object), std::move(userInfo)});
}

void NotificationCenter::post(const Notification& notification) {
    std::vector<std::shared_ptr<Entry>> targets;
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        for (const auto& e : impl_->entries) {
            if (e->name.empty() || e->name == notification.name) targets.push_back(e);
        }
    }
    for (const auto& e : targets) {
        {
            std::lock_guard<std::mutex> lock(e->mutex);
            if (e->removed) continue;
            ++e->running;
        }
        RunningCall call(*e);
        e->fn(notification);
    }
}

std::size_t NotificationCenter::observerCount() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->entries.size();
}

}  // namespace zub
