// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/kmsg.h"

#include <cstdio>

#include "platform/jiffies.h"

namespace app {

std::string format_log_line(const host::LogLine& line) {
    char stamp[48];
    std::snprintf(stamp, sizeof stamp, "[%5lu.%03lu] ", line.jiffies / HZ,
                  line.jiffies % HZ * 1000 / HZ);
    return stamp + line.text;
}

void Kmsg::append(const host::LogLine& line) {
    const std::string text =
        "<" + std::to_string(line.priority) + ">" + format_log_line(line) + "\n";
    const std::lock_guard guard(mutex_);
    if (text_.size() + text.size() > 2 * most_) {
        // Half of it at once, so that forgetting costs little for each line.
        const std::size_t line_end = text_.find('\n', text_.size() - most_);
        begin_ += line_end + 1;
        text_.erase(0, line_end + 1);
    }
    text_ += text;
    std::timespec_get(&changed_, TIME_UTC);
}

Kmsg::Extent Kmsg::extent() const {
    const std::lock_guard guard(mutex_);
    return {begin_, begin_ + text_.size(), changed_};
}

std::string Kmsg::read(std::size_t size, std::uint64_t offset) const {
    const std::lock_guard guard(mutex_);
    if (offset < begin_ || offset - begin_ >= text_.size())
        return {};
    return text_.substr(offset - begin_, size);
}

}  // namespace app
