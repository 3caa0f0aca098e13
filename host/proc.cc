// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The tree below /proc: making and removing entries.
#include "host/proc.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "host/faults.h"
#include "host/internal.h"
#include "host/services.h"

namespace host {
namespace {

constexpr u16 readable_by_all = 0444;
constexpr u16 directory_mode = 0555;

std::mutex mutex;  // guards the tree, and who runs handlers; never held in a handler
std::condition_variable handler_returned;
std::shared_ptr<ProcNode> root;

void begin_proc() {
    root = std::make_shared<ProcNode>();
    root->directory = true;
    root->mode = directory_mode;
}

/* Who still has a file open must not reach a handler any more. */
void mark_removed(ProcNode& node) {
    node.removed = true;
    for (const auto& [name, child] : node.children)
        mark_removed(*child);
}

void end_proc() {
    const std::lock_guard guard(mutex);
    mark_removed(*root);
    root.reset();
}

/* Splits the last part off a path. */
std::pair<std::string, std::string> split(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return {"", path};
    return {path.substr(0, slash), path.substr(slash + 1)};
}

ProcNode* find_below(ProcNode* from, const std::string& path) {
    for (std::size_t at = 0; from && at < path.size();) {
        const std::size_t end = std::min(path.find('/', at), path.size());
        if (end > at) {
            const auto child = from->children.find(path.substr(at, end - at));
            from = child == from->children.end() ? nullptr : child->second.get();
        }
        at = end + 1;
    }
    return from;
}

ProcNode* node_of(proc_dir_entry* entry) {
    return entry ? static_cast<ProcNode*>(entry) : root.get();
}

proc_dir_entry* make_entry(const char* path, u16 mode, proc_dir_entry* parent, bool directory) {
    const std::lock_guard guard(mutex);
    const auto [above, name] = split(path);
    ProcNode* const where = find_below(node_of(parent), above);
    if (!where || !where->directory || name.empty() || where->children.contains(name))
        return nullptr;
    auto node = std::make_shared<ProcNode>();
    node->mode = mode;
    node->name = name;
    node->parent = where;
    node->directory = directory;
    return (where->children[name] = std::move(node)).get();
}

template <class Visit>
void visit_entries(const ProcNode& from, const std::string& path, const Visit& visit) {
    for (const auto& [name, node] : from.children) {
        visit(path + name + (node->directory ? "/" : ""), *node);
        visit_entries(*node, path + name + "/", visit);
    }
}

void report_files(std::vector<std::string>& lines) {
    const std::lock_guard guard(mutex);
    visit_entries(*root, "", [&](const std::string& path, const ProcNode& node) {
        if (!node.directory)
            lines.push_back("proc: the file " + path + " stands");
    });
}

/* Takes the node out of the tree, so that no new handler begins; those that run keep it alive. */
std::shared_ptr<ProcNode> take_out(const char* path, proc_dir_entry* parent) {
    ProcNode* const node = find_below(node_of(parent), path);
    if (!node || node == root.get())
        die("remove_proc_entry: there is no entry %s", path);
    if (!node->children.empty())
        die("remove_proc_entry: the directory %s is not empty", path);
    if (this_thread.proc_entry == node)
        die("remove_proc_entry: %s is removed from its own handler", path);
    const auto position = node->parent->children.find(node->name);
    std::shared_ptr<ProcNode> taken = std::move(position->second);
    taken->parent->children.erase(position);
    taken->removed = true;
    return taken;
}

}  // namespace

const Service proc_service = {begin_proc, end_proc, report_files};

std::shared_ptr<ProcNode> find_proc_node(const std::string& path) {
    const std::lock_guard guard(mutex);
    const auto [above, name] = split(path);
    ProcNode* const where = find_below(root.get(), above);
    if (!where || !where->children.contains(name))
        return nullptr;
    return where->children.at(name);
}

ProcHandlerScope::ProcHandlerScope(ProcNode& node)
    : node_(node), outer_(this_thread.proc_entry), entered_(false) {
    const std::lock_guard guard(mutex);
    if (node.removed)
        return;
    ++node.running;
    entered_ = true;
    this_thread.proc_entry = &node;
}

ProcHandlerScope::~ProcHandlerScope() {
    if (!entered_)
        return;
    this_thread.proc_entry = outer_;
    const std::lock_guard guard(mutex);
    --node_.running;
    handler_returned.notify_all();
}

std::vector<std::string> proc_entries() {
    enter("proc_entries");
    const std::lock_guard guard(mutex);
    std::vector<std::string> paths;
    visit_entries(*root, "",
                  [&](const std::string& path, const ProcNode&) { paths.push_back(path); });
    std::ranges::sort(paths);
    return paths;
}

unsigned proc_mode(const std::string& path) {
    enter("proc_mode");
    const std::lock_guard guard(mutex);
    const ProcNode* const node = find_below(root.get(), path);
    if (!node)
        throw std::system_error(ENOENT, std::generic_category(), path);
    return node->mode;
}

}  // namespace host

proc_dir_entry* create_proc_entry(const char* name, u16 mode, proc_dir_entry* parent) {
    host::enter("create_proc_entry");
    host::must_sleep("create_proc_entry");
    if (host::fails_now("create_proc_entry"))
        return nullptr;
    return host::make_entry(name, mode ? mode : host::readable_by_all, parent, false);
}

proc_dir_entry* proc_mkdir(const char* name, proc_dir_entry* parent) {
    host::enter("proc_mkdir");
    host::must_sleep("proc_mkdir");
    if (host::fails_now("proc_mkdir"))
        return nullptr;
    return host::make_entry(name, host::directory_mode, parent, true);
}

void remove_proc_entry(const char* name, proc_dir_entry* parent) {
    host::enter("remove_proc_entry");
    host::must_sleep("remove_proc_entry");
    std::unique_lock lock(host::mutex);
    const auto node = host::take_out(name, parent);
    host::handler_returned.wait(lock, [&] { return node->running == 0; });
}
