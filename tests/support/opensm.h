// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A fabric that ibsim simulates, with OpenSM as its manager and SA, both started for one test in a
// directory of their own. They are children that die with the test, and nothing of them is left.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/program.h"
#include "tests/support/tools.h"

namespace support {

#define SKIP_WITHOUT_OPENSM() SKIP_WITHOUT_PROGRAMS("opensm", "ibsim", "ibnetdiscover")

/// A child process. It dies with its parent.
class Child {
  public:
    using Environment = std::map<std::string, std::string>;

    Child(std::vector<std::string> words, const Environment& environment, const std::string& in,
          const std::string& out) {
        const pid_t parent = getpid();
        std::fflush(nullptr);  // or what the test has printed is printed twice
        pid_ = fork();
        if (pid_ != 0)
            return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent || !freopen(in.c_str(), "r+", stdin) ||
            !freopen(out.c_str(), "w", stdout) || dup2(STDOUT_FILENO, STDERR_FILENO) < 0)
            _exit(126);
        for (const auto& [name, value] : environment)
            setenv(name.c_str(), value.c_str(), 1);
        std::vector<char*> arguments;
        for (std::string& word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    ~Child() { end(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void tell(int number) const { kill(pid_, number); }

    /// TERM, and after three seconds KILL.
    void end() {
        if (pid_ <= 0)
            return;
        tell(SIGCONT);
        tell(SIGTERM);
        const int itself = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
        pollfd ended{itself, POLLIN, 0};
        if (poll(&ended, 1, 3000) != 1)
            tell(SIGKILL);
        close(itself);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

  private:
    pid_t pid_;
};

/// Looks every few milliseconds until something holds; false after ten seconds. Other programs keep
/// their own time, and of most of what they do nobody is told.
template <class Condition>
bool wait_until(Condition holds) {
    for (int i = 0; i < 2000; i++) {
        if (holds())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

class Ground {
  public:
    struct Options {
        int lmc = 0;
        std::string partitions = {};  ///< of OpenSM's partition file; empty: the default one
    };

    /// ibsim on that topology, and OpenSM on the node `manager`.
    Ground(const std::string& topology, const std::string& manager)
        : Ground(topology, manager, {}) {}
    Ground(const std::string& topology, const std::string& manager, const Options& options)
        : options_(options) {
        std::string name = std::filesystem::temp_directory_path() / "tarv-ground-XXXXXX";
        if (!mkdtemp(name.data()))
            throw std::runtime_error("no directory for the test");
        directory_ = name;
        setenv("IBSIM_SOCKNAME", directory_.filename().c_str(), 1);
        std::ofstream(directory_ / "net") << topology;
        std::ofstream(directory_ / "partitions") << options.partitions;
        std::ofstream(directory_ / "conf")
            << "force_log_flush TRUE\nsweep_interval 0\nfsync_high_avail_files FALSE\n"
               "polling_retry_number 2\nsminfo_polling_timeout 200\nbabbling_port_policy FALSE\n";
        // ibsim reads its console, which must not come to its end.
        mkfifo((directory_ / "console").c_str(), 0600);
        fabric_ = std::make_unique<Child>(
            std::vector<std::string>{"ibsim", "-s", directory_ / "net"}, Child::Environment{},
            directory_ / "console", directory_ / "ibsim.out");
        console_.open(directory_ / "console");
        if (!wait_until([&] { return read_file(directory_ / "ibsim.out").find("ready") != npos; }))
            throw std::runtime_error("ibsim does not start:\n" +
                                     read_file(directory_ / "ibsim.out"));
        start_manager(manager);
    }
    ~Ground() {
        managers_.clear();
        fabric_.reset();
        std::filesystem::remove_all(directory_);
    }
    Ground(const Ground&) = delete;
    Ground& operator=(const Ground&) = delete;

    /// A further manager; of two the one with the higher priority is the master. Returns when it
    /// is.
    void start_manager(const std::string& node, int priority = 0) {
        const std::string own = "osm" + std::to_string(managers_.size());
        std::filesystem::create_directory(directory_ / own);
        std::vector<std::string> words = {"opensm",
                                          "-F",
                                          directory_ / "conf",
                                          "-f",
                                          directory_ / own / "log",
                                          "-l",
                                          std::to_string(options_.lmc),
                                          "-p",
                                          std::to_string(priority)};
        if (!options_.partitions.empty())
            words.insert(words.end(), {"-P", directory_ / "partitions"});
        managers_.push_back(
            std::make_unique<Child>(words,
                                    Child::Environment{{"SIM_HOST", node},
                                                       {"LD_PRELOAD", preload()},
                                                       {"OSM_TMP_DIR", directory_ / own},
                                                       {"OSM_CACHE_DIR", directory_ / own}},
                                    "/dev/null", directory_ / own / "out"));
        const auto log = [&] { return read_file(directory_ / own / "log"); };
        if (!wait_until([&] { return log().find("SUBNET UP") != npos; }))
            throw std::runtime_error("OpenSM does not bring the subnet up:\n" + log());
    }
    Child& manager(std::size_t number = 0) { return *managers_.at(number); }

    /// A line for ibsim's console.
    void console(const std::string& line) { console_ << line << std::endl; }

    /// What ibnetdiscover prints, and a file with it.
    std::string picture(const std::string& arguments = {}) const {
        const Result result = shell("SIM_HOST='" + any_node() + "' LD_PRELOAD=" + preload() +
                                    " ibnetdiscover " + arguments);
        std::ofstream(picture_file()) << result.out;
        return result.out;
    }
    std::string picture_file() const { return directory_ / "picture"; }

    static std::string preload() {
        for (const auto& entry : std::filesystem::directory_iterator("/usr/lib"))
            if (const auto file = entry.path() / "umad2sim/libumad2sim.so";
                std::filesystem::exists(file))
                return file;
        return {};
    }

  private:
    static constexpr auto npos = std::string::npos;

    /* The first adapter of the topology. */
    std::string any_node() const {
        const std::string net = read_file(directory_ / "net");
        for (const char* const word : {"\nCa", "\nHca"})
            if (const auto at = ("\n" + net).find(word); at != npos) {
                const auto from = net.find('"', at) + 1;
                return net.substr(from, net.find('"', from) - from);
            }
        return {};
    }

    const Options options_;
    std::filesystem::path directory_;
    std::unique_ptr<Child> fabric_;
    std::ofstream console_;
    std::vector<std::unique_ptr<Child>> managers_;
};

}  // namespace support
