// SPDX-License-Identifier: MIT
// The TCP segments of a capture (pcap or pcapng), read by libpcap.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "packet.h"

struct pcap;

namespace kvr {

/// Whether a file that begins with this byte can be a capture; no channel's stream begins with one of these.
bool begins_capture(char first);

class CaptureFile {
  public:
    /// @param file    at the beginning of the capture; taken over, whatever comes
    /// @param name    of the file, printable, for errors
    /// @param filter  in the words of tcpdump; empty: every packet
    /// Throws kvr::Error when it is no capture that can be read, or the filter none.
    CaptureFile(std::FILE* file, std::string name, const std::string& filter);

    /// @param segment (out) the next one; its payload stays until the next call
    /// @return false at the end of the capture. Throws kvr::Error(kDamaged) when the file is cut or damaged.
    bool next(Segment& segment);

  private:
    struct Close {
        void operator()(pcap* capture) const;
    };
    std::unique_ptr<pcap, Close> capture_;
    std::string name_;
    int link_ = 0;
};

} // namespace kvr
