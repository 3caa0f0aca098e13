// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The time-ordered queue behind both executors, and the running of one entry of it.
#include <utility>

#include "host/executor.h"
#include "host/internal.h"

namespace host {

void TimeQueue::add(unsigned long due, Entry entry) {
    entries_.emplace(Key{due, next_++}, std::move(entry));
}

void TimeQueue::arm(timer_list* timer, unsigned long now) {
    // Signed, as a kernel compares ticks: an expiry behind now is past, however far.
    const bool past = static_cast<long>(timer->expires - now) <= 0;
    const Key key{past ? now + 1 : timer->expires, next_++};
    entries_.emplace(key, Entry{Context::timer, {}, timer});
    armed_.emplace(timer, key);
}

bool TimeQueue::disarm(const timer_list* timer) {
    const auto found = armed_.find(timer);
    if (found == armed_.end())
        return false;
    entries_.erase(found->second);
    armed_.erase(found);
    return true;
}

TimeQueue::Entries::const_iterator TimeQueue::find_without(Context without) const {
    auto position = entries_.begin();
    while (position != entries_.end() && position->second.context == without)
        ++position;
    return position;
}

unsigned long TimeQueue::first_due_without(Context without) const {
    const auto position = find_without(without);
    return position == entries_.end() ? never : position->first.first;
}

TimeQueue::Entry TimeQueue::take(Entries::iterator position) {
    Entry entry = std::move(position->second);
    entries_.erase(position);
    if (entry.timer)
        armed_.erase(entry.timer);
    return entry;
}

TimeQueue::Entry TimeQueue::pop() {
    return take(entries_.begin());
}

TimeQueue::Entry TimeQueue::pop_without(Context without) {
    const auto position = find_without(without);
    return take(entries_.erase(position, position));
}

const timer_list* TimeQueue::armed_within(const void* memory, std::size_t size) const {
    const auto* begin = static_cast<const unsigned char*>(memory);
    const auto found = armed_.lower_bound(reinterpret_cast<const timer_list*>(begin));
    if (found == armed_.end() ||
        reinterpret_cast<const unsigned char*>(found->first) >= begin + size)
        return nullptr;
    return found->first;
}

std::vector<ArmedTimer> TimeQueue::armed_timers() const {
    std::vector<ArmedTimer> result;
    for (const auto& [key, entry] : entries_)
        if (entry.timer)
            result.push_back({entry.timer, key.first});
    return result;
}

// What the dropped work owns may queue something when it goes.
void TimeQueue::clear() {
    armed_.clear();
    while (!entries_.empty())
        pop();
}

void run_entry(TimeQueue::Entry& entry) {
    must_hold_no_lock("the next piece of work");
    const ContextScope scope(entry.context);
    if (entry.timer) {
        // The function may free its timer, so what is needed is read before.
        const auto function = entry.timer->function;
        const auto data = entry.timer->data;
        const timer_list* outer = std::exchange(this_thread.timer, entry.timer);
        function(data);
        this_thread.timer = outer;
        must_return_lock_free("the timer function", reinterpret_cast<const void*>(function));
    } else {
        entry.work();
        must_return_lock_free("work scheduled in this context", nullptr);
    }
}

}  // namespace host
