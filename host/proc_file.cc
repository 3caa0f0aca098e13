// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// An open file of /proc: the kernel's side of the read_proc and write_proc conventions.
#include <algorithm>
#include <cerrno>
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
        check_result(node, length, PAGE_SIZE);
        length = std::min(length - offset, count);
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
    // Of exactly the page's size, so that a sanitizer sees what is written behind it.
    const auto page = std::make_unique<char[]>(PAGE_SIZE);
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
    std::mutex mutex;  // one system call on this open file at a time
    long position = 0;
    long pass_end = 0;        // behind what the handler gave last
    bool unfinished = false;  // the handler has more to give from there on
    long ended_at = -1;       // where the handler said that the file ends

    std::string read(std::size_t size, long* offset);
    void finish_pass();
};

std::string ProcFile::Impl::read(std::size_t size, long* offset) {
    must_sleep("read of a proc file");
    if ((node->mode & 0444) == 0)
        fail(EACCES, path);
    if (!node->read_proc)
        fail(EIO, path);
    std::string text;
    while (text.size() < size && *offset != ended_at) {
        const long at = *offset;
        const Piece piece = call_handler(*node, at, size - text.size());
        if (piece.result < 0 && text.empty())
            fail(-piece.result, path);
        text += piece.bytes;
        *offset = piece.next;
        // A handler that is asked again where it said that nothing follows might take the question
        // for another reader's.
        ended_at = piece.eof ? piece.next : -1;
        // A call elsewhere that gives nothing leaves the pass where it was, still to be finished.
        if (at == pass_end || piece.more()) {
            pass_end = piece.next;
            unfinished = piece.more();
        }
        if (!piece.more())
            break;
    }
    return text;
}

void ProcFile::Impl::finish_pass() {
    for (unsigned calls = 0; unfinished; ++calls) {
        if (calls == longest_pass)
            die("read_proc of %s: a pass does not come to its end", node->name.c_str());
        const Piece piece = call_handler(*node, pass_end, block_size);
        pass_end = piece.next;
        unfinished = piece.more();
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
    impl_ = new Impl{path, std::move(node), {}};
}

ProcFile::~ProcFile() {
    impl_->finish_pass();
    delete impl_;
}

std::string ProcFile::read(std::size_t size) {
    const std::lock_guard guard(impl_->mutex);
    return impl_->read(size, &impl_->position);
}

std::string ProcFile::read_at(std::size_t size, long offset) {
    const std::lock_guard guard(impl_->mutex);
    return impl_->read(size, &offset);
}

void ProcFile::seek(long offset) {
    const std::lock_guard guard(impl_->mutex);
    impl_->position = offset;
    impl_->ended_at = -1;
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
