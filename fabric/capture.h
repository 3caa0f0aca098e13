// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Looking at what crosses our host's ports: a hook for tests and programs, and capture files for a
// packet analyser.
//
// The tap sits at our adapter: it sees what we send even if the fabric then loses it, and of what
// others send only what arrives.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>

#include "fabric/mutex.h"
#include "fabric/packet.h"

namespace fabric {

enum class Direction { out, in };

struct SeenPacket {
    Direction direction;
    int port;  ///< of our adapter, from 1
    unsigned long jiffies;
    const Packet& packet;
};

/// Writes a classic capture file with the link type of ERF records, each of type 21 (InfiniBand)
/// with all link headers. When a packet cannot be written, the file ends with the one before it.
/// Throws std::system_error when the file cannot be made.
class CaptureFile {
  public:
    explicit CaptureFile(const std::string& path);
    explicit CaptureFile(std::unique_ptr<std::ostream> out);
    ~CaptureFile();
    /// `time`: since 1970.
    void write(const SeenPacket& seen, std::chrono::nanoseconds time);
    /// All that came could be written.
    bool whole() const;

  private:
    void append_to_file(const Bytes& bytes);

    std::unique_ptr<std::ostream> out_;
    std::string path_;        ///< empty where the caller gave the stream
    std::uint64_t size_ = 0;  ///< of what stands whole in it
};

/// Where the hooks are. They are called one packet at a time, in the context that sends or receives
/// it; they must not add or take away hooks.
class Tap {
  public:
    using Hook = std::function<void(const SeenPacket&)>;

    void on_packet(Hook hook);                 ///< replaces the hook; an empty one takes it away
    void capture_to(const std::string& path);  ///< until stop_capture(); see CaptureFile
    bool stop_capture();                       ///< false when not all could be written

    void see(const SeenPacket& seen);

  private:
    void update() TA_REQ(mutex_);

    Mutex mutex_;
    std::atomic<bool> any_ = false;
    Hook hook_ TA_GUARDED(mutex_);
    std::unique_ptr<CaptureFile> file_ TA_GUARDED(mutex_);
};

}  // namespace fabric
