// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/mount_tree.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <limits>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "host/services.h"

namespace app {
namespace {

constexpr std::string_view kmsg_path = "/kmsg";
constexpr std::string_view metrics_directory = "/quorvane/tarv";
constexpr std::string_view metrics_path = "/quorvane/tarv/metrics";
constexpr mode_t root_mode = 0555;
constexpr mode_t kmsg_mode = 0444;  // and that of metrics

[[noreturn]] void fail(int error) {
    throw std::system_error(error, std::generic_category());
}

/* An entry of /proc, whose paths have no slash in front. */
struct Entry {
    std::string path;
    bool directory;
};

std::optional<Entry> find_entry(const std::string& path) {
    for (std::string name : host::proc_entries()) {
        const bool directory = name.ends_with('/');
        if (directory)
            name.pop_back();
        if ("/" + name == path)
            return Entry{std::move(name), directory};
    }
    return {};
}

struct stat make_attributes(mode_t mode, bool directory) {
    struct stat result {};
    result.st_mode = mode | (directory ? S_IFDIR : S_IFREG);
    result.st_nlink = directory ? 2 : 1;
    result.st_uid = geteuid();
    result.st_gid = getegid();
    std::timespec_get(&result.st_mtim, TIME_UTC);
    result.st_atim = result.st_ctim = result.st_mtim;
    return result;
}

/* Its size is told, unlike that of a file of /proc: who follows it looks at nothing else. */
struct stat kmsg_attributes(const Kmsg::Extent& extent) {
    struct stat result = make_attributes(kmsg_mode, false);
    result.st_size = static_cast<off_t>(extent.end);
    result.st_blocks = result.st_size / 512 + 1;
    result.st_mtim = result.st_ctim = extent.changed;
    return result;
}

}  // namespace

class MountTree::OpenFile {
  public:
    virtual ~OpenFile() = default;
    virtual std::string read(std::size_t size, std::uint64_t offset) = 0;
    virtual long write(const std::string& text) = 0;

    std::atomic<bool> begun = false;  ///< it has been read from
};

class MountTree::OpenProcFile final : public MountTree::OpenFile {
  public:
    explicit OpenProcFile(const std::string& path) : file_(path) {}
    std::string read(std::size_t size, std::uint64_t offset) override {
        if (offset > std::numeric_limits<int>::max())
            return {};
        return file_.read_at(size, static_cast<long>(offset));
    }
    long write(const std::string& text) override { return file_.write(text); }

  private:
    host::ProcFile file_;
};

class MountTree::OpenKmsg final : public MountTree::OpenFile {
  public:
    explicit OpenKmsg(const Kmsg& kmsg) : kmsg_(kmsg) {}
    std::string read(std::size_t size, std::uint64_t offset) override {
        const std::uint64_t begin = kmsg_.extent().begin;
        const std::lock_guard guard(mutex_);
        // Who begins at the start gets the oldest line that there is, and goes on from there.
        if (!begun_ && offset == 0)
            forgotten_ = begin;
        begun_ = true;
        return kmsg_.read(size, offset + forgotten_);
    }
    long write(const std::string&) override { return -EBADF; }

  private:
    const Kmsg& kmsg_;
    std::mutex mutex_;
    bool begun_ = false;
    std::uint64_t forgotten_ = 0;  // bytes in front of this reader's offset 0
};

class MountTree::OpenMetrics final : public MountTree::OpenFile {
  public:
    explicit OpenMetrics(std::string text) : text_(std::move(text)) {}
    std::string read(std::size_t size, std::uint64_t offset) override {
        return offset < text_.size() ? text_.substr(offset, size) : "";
    }
    long write(const std::string&) override { return -EBADF; }

  private:
    const std::string text_;
};

MountTree::~MountTree() = default;

void MountTree::show_metrics(std::function<std::string()> text) {
    const std::lock_guard guard(mutex_);
    metrics_ = std::move(text);
}

/* They go with the module's own files. */
bool MountTree::has_metrics() const {
    const std::lock_guard guard(mutex_);
    return metrics_ && find_entry(std::string(metrics_directory));
}

struct stat MountTree::attributes(const std::string& path) const {
    if (path == "/")
        return make_attributes(root_mode, true);
    if (path == kmsg_path)
        return kmsg_attributes(kmsg_.extent());
    if (path == metrics_path && has_metrics())
        return make_attributes(kmsg_mode, false);
    const auto entry = find_entry(path);
    if (!entry)
        fail(ENOENT);
    return make_attributes(static_cast<mode_t>(host::proc_mode(entry->path)), entry->directory);
}

std::vector<std::string> MountTree::names_in(const std::string& path) const {
    if (!S_ISDIR(attributes(path).st_mode))
        fail(ENOTDIR);
    const std::string prefix = path == "/" ? "" : path.substr(1) + "/";
    std::vector<std::string> names;
    if (prefix.empty())
        names.emplace_back(kmsg_path.substr(1));
    if (path == metrics_directory && has_metrics())
        names.emplace_back(metrics_path.substr(metrics_directory.size() + 1));
    for (const std::string& entry : host::proc_entries()) {
        std::string name = entry.starts_with(prefix) ? entry.substr(prefix.size()) : "";
        if (name.ends_with('/'))
            name.pop_back();
        if (!name.empty() && name.find('/') == std::string::npos)
            names.push_back(std::move(name));
    }
    return names;
}

std::uint64_t MountTree::open(const std::string& path, int flags) {
    std::shared_ptr<OpenFile> file;
    const bool metrics = path == metrics_path && has_metrics();
    if (path != kmsg_path && !metrics)
        file = std::make_shared<OpenProcFile>(path.substr(1));
    else if ((flags & O_ACCMODE) != O_RDONLY)
        fail(EACCES);
    else if (metrics)
        file = std::make_shared<OpenMetrics>(metrics_());
    else
        file = std::make_shared<OpenKmsg>(kmsg_);
    const std::lock_guard guard(mutex_);
    files_.emplace(next_, std::move(file));
    return next_++;
}

std::shared_ptr<MountTree::OpenFile> MountTree::find(std::uint64_t file) const {
    const std::lock_guard guard(mutex_);
    const auto found = files_.find(file);
    if (found == files_.end())
        fail(EBADF);
    return found->second;
}

std::string MountTree::read(std::uint64_t file, std::size_t size, std::uint64_t offset) {
    const auto open_file = find(file);
    if (!open_file->begun)
        wait_for_closings();
    open_file->begun = true;
    return open_file->read(size, offset);
}

long MountTree::write(std::uint64_t file, const std::string& text) {
    return find(file)->write(text);
}

void MountTree::close(std::uint64_t file) {
    std::shared_ptr<OpenFile> closed;
    const std::lock_guard guard(mutex_);
    const auto found = files_.find(file);
    if (found != files_.end())
        files_.extract(found).mapped().swap(closed);
}

void MountTree::close_all() {
    std::map<std::uint64_t, std::shared_ptr<OpenFile>> closed;
    const std::lock_guard guard(mutex_);
    closed.swap(files_);
}

void MountTree::closing_begins() {
    const std::lock_guard guard(mutex_);
    ++closings_;
}

void MountTree::closing_ended() {
    const std::lock_guard guard(mutex_);
    if (--closings_ == 0)
        closed_.notify_all();
}

void MountTree::wait_for_closings() {
    std::unique_lock lock(mutex_);
    closed_.wait(lock, [this] { return closings_ == 0; });
}

}  // namespace app
