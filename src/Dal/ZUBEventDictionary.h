// A string-keyed dictionary of events that keeps insertion order.
//
// The event store's two dictionaries (waiting and retry) are walked in this
// order when a batch is assembled, so older events go first. Setting an event
// under a key that is already present replaces the event in place (the key keeps
// its position). Saved log files keep the order, so it survives a restart.
//
// Memory: thousands of events can wait while the host is offline, so an entry
// costs one list node and one index node, and no copy of its key when the key is
// the event's own md5 (always, for events the library files): the entry then
// reads the key from the event. Only an entry whose key differs (a log file
// written with other keys) keeps a copy. An event's md5 therefore must not
// change while a dictionary holds it.
//
// Iterating yields (key, event) pairs by value, so `for (const auto& [key, event] : d)`
// works; the key view is valid while the entry is held.
//
// Not synchronised: the event store's lock guards every use.
#pragma once

#include <ZUBCocoa/ZUBProEvent.h>

#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>

class ZUBEventDictionary {
    using EventPtr = std::shared_ptr<ZUBProEvent>;
    struct Node {
        EventPtr event;
        std::unique_ptr<const std::string> ownKey;  // null when the key is the event's md5
        std::string_view key() const { return ownKey ? std::string_view(*ownKey) : std::string_view(*event->md5()); }
    };
    using List = std::list<Node>;

public:
    using Entry = std::pair<std::string_view, const EventPtr&>;

    class const_iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Entry;
        using difference_type = std::ptrdiff_t;
        struct Arrow {
            Entry entry;
            const Entry* operator->() const { return &entry; }
        };

        const_iterator() = default;
        explicit const_iterator(List::const_iterator at) : at_(at) {}
        Entry operator*() const { return {at_->key(), at_->event}; }
        Arrow operator->() const { return Arrow{**this}; }
        const_iterator& operator++() {
            ++at_;
            return *this;
        }
        const_iterator operator++(int) {
            const_iterator before = *this;
            ++at_;
            return before;
        }
        bool operator==(const const_iterator&) const = default;

    private:
        List::const_iterator at_;
    };

    ZUBEventDictionary() = default;
    ZUBEventDictionary(const ZUBEventDictionary& other) { *this = other; }
    ZUBEventDictionary& operator=(const ZUBEventDictionary& other) {
        if (this != &other) {
            clear();
            for (const auto& [key, event] : other) set(key, event);
        }
        return *this;
    }
    ZUBEventDictionary(ZUBEventDictionary&&) noexcept = default;
    ZUBEventDictionary& operator=(ZUBEventDictionary&&) noexcept = default;

    void set(std::string_view key, EventPtr event) {
        // The key may view the event being replaced: settle the new entry's key
        // before the old event can go.
        const bool ownsKey = !event || !event->md5() || *event->md5() != key;
        std::unique_ptr<const std::string> copy = ownsKey ? std::make_unique<const std::string>(key) : nullptr;
        if (auto it = index_.find(key); it != index_.end()) {
            Node& node = **it;
            std::swap(node.ownKey, copy);  // the old key copy, if any, goes after the swap
            node.event = std::move(event);
            return;
        }
        entries_.push_back(Node{std::move(event), std::move(copy)});
        index_.insert(std::prev(entries_.end()));
    }
    EventPtr get(std::string_view key) const {
        auto it = index_.find(key);
        return it == index_.end() ? nullptr : (*it)->event;
    }
    bool contains(std::string_view key) const { return index_.find(key) != index_.end(); }
    bool erase(std::string_view key) {
        auto it = index_.find(key);
        if (it == index_.end()) return false;
        const auto node = *it;
        index_.erase(it);
        entries_.erase(node);  // last: the key may view this entry's event
        return true;
    }
    void clear() {
        index_.clear();
        entries_.clear();
    }
    std::size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }
    const_iterator begin() const { return const_iterator(entries_.begin()); }
    const_iterator end() const { return const_iterator(entries_.end()); }

private:
    // The index holds list positions and finds them by their key.
    struct KeyHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view key) const noexcept { return std::hash<std::string_view>{}(key); }
        std::size_t operator()(List::iterator at) const noexcept { return (*this)(at->key()); }
    };
    struct KeyEqual {
        using is_transparent = void;
        static std::string_view keyOf(std::string_view key) { return key; }
        static std::string_view keyOf(List::iterator at) { return at->key(); }
        template <class A, class B>
        bool operator()(const A& a, const B& b) const {
            return keyOf(a) == keyOf(b);
        }
    };

    List entries_;
    std::unordered_set<List::iterator, KeyHash, KeyEqual> index_;
};
