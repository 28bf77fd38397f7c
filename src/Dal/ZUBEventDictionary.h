// A string-keyed dictionary of events that keeps insertion order.
//
// The event store's two dictionaries (waiting and retry) are walked in this
// order when a batch is assembled, so older events go first. Setting an event
// under a key that is already present replaces the event in place (the key keeps
// its position). Saved log files keep the order, so it survives a restart.
//
// The index refers to the keys held in the list's nodes (which never move), so
// each key is stored once.
//
// Not synchronised: the event store's lock guards every use.
#pragma once

#include <ZUBCocoa/ZUBProEvent.h>

#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

class ZUBEventDictionary {
public:
    using EventPtr = std::shared_ptr<ZUBProEvent>;
    using Entry = std::pair<std::string, EventPtr>;
    using const_iterator = std::list<Entry>::const_iterator;

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

    void set(const std::string& key, EventPtr event) {
        if (auto it = index_.find(key); it != index_.end()) {
            it->second->second = std::move(event);
            return;
        }
        entries_.emplace_back(key, std::move(event));
        const auto last = std::prev(entries_.end());
        index_.emplace(std::string_view(last->first), last);
    }
    EventPtr get(const std::string& key) const {
        auto it = index_.find(key);
        return it == index_.end() ? nullptr : it->second->second;
    }
    bool contains(const std::string& key) const { return index_.count(key) != 0; }
    bool erase(const std::string& key) {
        auto it = index_.find(key);
        if (it == index_.end()) return false;
        const auto entry = it->second;
        index_.erase(it);
        entries_.erase(entry);
        return true;
    }
    void clear() {
        index_.clear();
        entries_.clear();
    }
    std::size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }
    const_iterator begin() const { return entries_.begin(); }
    const_iterator end() const { return entries_.end(); }

private:
    std::list<Entry> entries_;
    std::unordered_map<std::string_view, std::list<Entry>::iterator> index_;  // views of the keys in entries_
};
