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

// The entries whose observer this thread is running right now (innermost last).
thread_local std::vector<const Entry*> tRunning;

}  // namespace

struct NotificationCenter::Impl {
    mutable std::mutex mutex;
    std::vector<std::shared_ptr<Entry>> entries;   // guarded by mutex, in order of adding
    std::vector<std::shared_ptr<Entry>> retiring;  // guarded by mutex: removed, calls may still run
    ObserverId nextId = 1;                         // guarded by mutex

    void forget(const Entry* e) {
        std::lock_guard<std::mutex> lock(mutex);
        std::erase_if(retiring, [e](const std::shared_ptr<Entry>& r) { return r.get() == e; });
    }

    // Marks a removed entry so that no new call starts. Called from outside the
    // observer, waits until no call of it runs on any thread; called from inside
    // one of its own calls, returns at once (another thread may be removing it
    // from inside its own call too; waiting there could never end), and the last
    // running call lets go of it.
    void retire(Entry& e) {
        const bool insideOwnCall = std::find(tRunning.begin(), tRunning.end(), &e) != tRunning.end();
        {
            std::unique_lock<std::mutex> lock(e.mutex);
            e.removed = true;
            if (insideOwnCall) return;
            e.idle.wait(lock, [&] { return e.running == 0; });
        }
        forget(&e);
    }
};

namespace {

// Marks one call of an entry as running for as long as it lives, also when the
// observer throws.
class RunningCall {
public:
    RunningCall(NotificationCenter::Impl& impl, Entry& e) : impl_(impl), e_(e) { tRunning.push_back(&e_); }
    ~RunningCall() {
        tRunning.pop_back();
        bool last;
        {
            std::lock_guard<std::mutex> lock(e_.mutex);
            last = --e_.running == 0 && e_.removed;
            if (last) e_.idle.notify_all();
        }
        if (last) impl_.forget(&e_);
    }
    RunningCall(const RunningCall&) = delete;
    RunningCall& operator=(const RunningCall&) = delete;

private:
    NotificationCenter::Impl& impl_;
    Entry& e_;
};

}  // namespace

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
        const auto matches = [id](const std::shared_ptr<Entry>& e) { return e->id == id; };
        auto it = std::find_if(impl_->entries.begin(), impl_->entries.end(), matches);
        if (it != impl_->entries.end()) {
            found = *it;
            impl_->entries.erase(it);
            impl_->retiring.push_back(found);
        } else {
            // Removed before (perhaps by itself on another thread): still wait for
            // calls that run on.
            auto r = std::find_if(impl_->retiring.begin(), impl_->retiring.end(), matches);
            if (r == impl_->retiring.end()) return;
            found = *r;
        }
    }
    impl_->retire(*found);
}

void NotificationCenter::removeObservers(const std::string& name) {
    std::vector<std::shared_ptr<Entry>> gone;
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        auto keep = std::stable_partition(impl_->entries.begin(), impl_->entries.end(),
                                          [&](const std::shared_ptr<Entry>& e) {
                                              return !name.empty() && e->name != name;
                                          });
        gone.assign(keep, impl_->entries.end());
        impl_->entries.erase(keep, impl_->entries.end());
        impl_->retiring.insert(impl_->retiring.end(), gone.begin(), gone.end());
    }
    for (auto& e : gone) impl_->retire(*e);
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
        RunningCall call(*impl_, *e);
        e->fn(notification);
    }
}

std::size_t NotificationCenter::observerCount() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->entries.size();
}

}  // namespace zub
