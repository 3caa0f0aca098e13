// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The tree below /proc, as its makers (proc.cc) and its readers (proc_file.cc) share it.
//
// An entry is owned by its directory and by everybody who has it open. Removing it takes it out of
// the tree and waits for its handlers; who still has it open finds it dead.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "platform/proc.h"

namespace host {

/// What the module sees of an entry, and behind it what it does not.
struct ProcNode : proc_dir_entry {
    ProcNode() : proc_dir_entry{} {}

    std::string name;
    ProcNode* parent = nullptr;
    bool directory = false;
    bool removed = false;
    unsigned running = 0;  ///< calls of its handlers
    std::map<std::string, std::shared_ptr<ProcNode>> children;
};

/// The node that stands at a path below /proc; null when there is none.
std::shared_ptr<ProcNode> find_proc_node(const std::string& path);

/// A handler of the node runs for the scope, in process context, and the node is not removed
/// meanwhile. False when it has been removed: then nothing may be called.
class ProcHandlerScope {
  public:
    explicit ProcHandlerScope(ProcNode& node);
    ~ProcHandlerScope();
    ProcHandlerScope(const ProcHandlerScope&) = delete;
    ProcHandlerScope& operator=(const ProcHandlerScope&) = delete;

    explicit operator bool() const { return entered_; }

  private:
    ProcNode& node_;
    const void* outer_;
    bool entered_;
};

}  // namespace host
