// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// An open file of /proc: the kernel's side of the read_proc and write_proc conventions.
//
// The text that a handler gives belongs to the open file whose read brought it about. The handler
// is asked only for what nobody has read yet, once, in order and up to its end; a reader who seeks,
// or reads on after the end, is served from what was given.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>

#include "host/internal.h"
#include "host/proc.h"
#include "host/services.h"
#include "host/user_memory.h"

namespace host {
namespace {

/* A handler is asked for less than a page, so that it has some room to overshoot. */
constexpr std::size_t block_size = PAGE_SIZE - 1024;

/* What stands in a page before its handler has written to it. */
constexpr int stale_fill = 0xA5;

/* After so many calls a handler that always has more to say is not coming to an end. */
constexpr unsigned longest_pass = 1u << 20;

/* What one call of a read handler gave. */
struct Piece {
    std::string bytes;
    long next = 0;     ///< the file offset behind it
    int result = 0;    ///< the handler's
    bool eof = false;  ///< nothing follows
    bool more() const { return result > 0 && !eof && !bytes.empty(); }
};

void check_result(const ProcNode& node, long result, long room) {
    if (result > room)
        die("read_proc of %s: %ld bytes were made available where %ld fit", node.name.c_str(),
            result, room);
}

/* Takes the bytes from where the handler says they are. */
void take_bytes(const ProcNode& node, const char* page, const char* start, long count,
                Piece& piece) {
    const auto small = reinterpret_cast<std::uintptr_t>(start);
    const long offset = piece.next;
    long length = piece.result;
    if (!start) {
        // All of it, also what was not asked for yet: the handler may have forgotten it later.
        check_result(node, length, PAGE_SIZE);
        length -= offset;
        if (length > 0)
            piece.bytes.assign(page + offset, static_cast<std::size_t>(length));
        piece.next = offset + std::max(length, 0l);
    } else if (small < reinterpret_cast<std::uintptr_t>(page)) {
        check_result(node, length, count);
        piece.bytes.assign(page, static_cast<std::size_t>(length));
        piece.next = offset + static_cast<long>(small);
    } else {
        const long skipped = start - page;
        check_result(node, skipped, PAGE_SIZE);
        check_result(node, length, static_cast<long>(PAGE_SIZE) - skipped);
        length = std::min(length, count);
        piece.bytes.assign(start, static_cast<std::size_t>(length));
        piece.next = offset + length;
    }
}

Piece call_handler(ProcNode& node, long offset, std::size_t wanted) {
    Piece piece;
    piece.next = offset;
    const ProcHandlerScope running(node);
    if (!running)
        return piece;
    const ContextScope scope(Context::process);
    // Of exactly the page's size, so that a sanitizer sees what is written behind it; and as full
    // of something else as a page of a kernel.
    const auto page = std::make_unique_for_overwrite<char[]>(PAGE_SIZE);
    std::memset(page.get(), stale_fill, PAGE_SIZE);
    char* start = nullptr;
    int eof = 0;
    const int count = static_cast<int>(std::min(wanted, block_size));
    piece.result = node.read_proc(page.get(), &start, offset, count, &eof, node.data);
    must_return_lock_free("the read handler of", reinterpret_cast<const void*>(node.read_proc));
    piece.eof = eof != 0;
    if (piece.result > 0)
        take_bytes(node, page.get(), start, count, piece);
    return piece;
}

[[noreturn]] void fail(int error, const std::string& path) {
    throw std::system_error(error, std::generic_category(), path);
}

}  // namespace

struct ProcFile::Impl {
    std::string path;
    std::shared_ptr<ProcNode> node;
    struct module* owner = nullptr;  // who is in use as long as the file is open
    std::mutex mutex;                // one system call on this open file at a time
    long position = 0;
    std::string text;     // all that the handler has given, from which every read is served
    long next = 0;        // the offset of the handler's next call
    bool ended = false;   // it gives no more; whoever asks it again may take another's text
    bool midway = false;  // it has given something and not yet all

    std::string read(std::size_t size, long offset);
    int go_on(std::size_t wanted);
    void finish_pass();
};

/* Lets the handler go on with its pass. A negative error number, after which it may be tried again,
 * or 0. */
int ProcFile::Impl::go_on(std::size_t wanted) {
    const Piece piece = call_handler(*node, next, wanted);
    text += piece.bytes;
    next = piece.next;
    midway = piece.more();
    ended = !midway && piece.result >= 0;
    return std::min(piece.result, 0);
}

std::string ProcFile::Impl::read(std::size_t size, long offset) {
    must_sleep("read of a proc file");
    if ((node->mode & 0444) == 0)
        fail(EACCES, path);
    if (!node->read_proc)
        fail(EIO, path);
    if (offset < 0)
        fail(EINVAL, path);
    const std::size_t begin = static_cast<std::size_t>(offset);
    int error = 0;
    while (!ended && error == 0 && text.size() < begin + size)
        error = go_on(begin + size - text.size());
    if (begin < text.size())
        return text.substr(begin, size);
    if (error != 0)
        fail(-error, path);
    return {};
}

void ProcFile::Impl::finish_pass() {
    for (unsigned calls = 0; midway; ++calls) {
        if (calls == longest_pass)
            die("read_proc of %s: a pass does not come to its end", node->name.c_str());
        go_on(block_size);
        text.clear();
    }
}

ProcFile::ProcFile(const std::string& path) : impl_(nullptr) {
    enter("open of a proc file");
    must_sleep("open of a proc file");
    auto node = find_proc_node(path);
    if (!node)
        fail(ENOENT, path);
    if (node->directory)
        fail(EISDIR, path);
    if ((node->mode & 0666) == 0)
        fail(EACCES, path);
    struct module* const owner = files_keep_modules ? node->owner : nullptr;
    if (!use_module(owner))
        fail(ENOENT, path);
    impl_ = new Impl;
    impl_->path = path;
    impl_->owner = owner;
    impl_->node = std::move(node);
}

ProcFile::~ProcFile() {
    impl_->finish_pass();
    end_use_of_module(impl_->owner);
    delete impl_;
}

std::string ProcFile::read(std::size_t size) {
    const std::lock_guard guard(impl_->mutex);
    std::string part = impl_->read(size, impl_->position);
    impl_->position += static_cast<long>(part.size());
    return part;
}

std::string ProcFile::read_at(std::size_t size, long offset) {
    const std::lock_guard guard(impl_->mutex);
    return impl_->read(size, offset);
}

void ProcFile::seek(long offset) {
    const std::lock_guard guard(impl_->mutex);
    impl_->position = offset;
}

long ProcFile::write(const std::string& text) {
    must_sleep("write to a proc file");
    const std::lock_guard guard(impl_->mutex);
    const proc_dir_entry& entry = *impl_->node;
    if ((entry.mode & 0222) == 0)
        return -EACCES;
    const ProcHandlerScope running(*impl_->node);
    if (!running || !entry.write_proc)
        return -EIO;
    const ContextScope scope(Context::process);
    const UserMemory memory(text);
    auto* const opened = reinterpret_cast<struct file*>(impl_);
    const int result = entry.write_proc(opened, memory.address(), text.size(), entry.data);
    must_return_lock_free("the write handler of", reinterpret_cast<const void*>(entry.write_proc));
    return result;
}

}  // namespace host
