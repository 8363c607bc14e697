// SPDX-License-Identifier: MIT
#include "capture_file.h"

#include <string_view>

#include <fmt/format.h>
#include <pcap/pcap.h>

#include "kavutil/error.h"

namespace kvr {

bool begins_capture(char first) {
    // pcap of either byte order and clock; pcapng begins with the number of its section header block.
    static constexpr std::string_view kFirstBytes = "\xa1\xd4\x4d\x0a";
    return kFirstBytes.find(first) != std::string_view::npos;
}

void CaptureFile::Close::operator()(pcap* capture) const {
    ::pcap_close(capture);
}

CaptureFile::CaptureFile(std::FILE* file, std::string name, const std::string& filter) : name_(std::move(name)) {
    char reason[PCAP_ERRBUF_SIZE] = "";
    capture_.reset(::pcap_fopen_offline(file, reason));
    if (!capture_) {
        (void)std::fclose(file);
        throw Error(Errc::kDamaged,
                    fmt::format("cannot read the capture {} ({}): give one of tcpdump -w, or a recorded "
                                "stream",
                                name_, reason));
    }
    link_ = ::pcap_datalink(capture_.get());
    if (!is_known_link(link_)) {
        const char* const known = ::pcap_datalink_val_to_description(link_);
        throw Error(Errc::kInvalid,
                    fmt::format("the packets in {} come from a kind of link that is not read here ({}): capture on an "
                                "Ethernet, the loopback or 'any' interface",
                                name_, known != nullptr ? known : fmt::format("number {}", link_)));
    }
    bpf_program program{};
    if (!filter.empty()) {
        if (::pcap_compile(capture_.get(), &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
            throw Error(Errc::kInvalid, fmt::format("cannot use the filter '{}' ({}): write it as for tcpdump, such as "
                                                    "'tcp port 5151'",
                                                    filter, ::pcap_geterr(capture_.get())));
        }
        const int set = ::pcap_setfilter(capture_.get(), &program);
        ::pcap_freecode(&program);
        if (set != 0) {
            throw Error(Errc::kInvalid, ::pcap_geterr(capture_.get()));
        }
    }
}

bool CaptureFile::next(Segment& segment) {
    for (;;) {
        pcap_pkthdr* header = nullptr;
        const unsigned char* bytes = nullptr;
        const int got = ::pcap_next_ex(capture_.get(), &header, &bytes);
        if (got == PCAP_ERROR_BREAK) {
            return false;
        }
        if (got != 1) {
            throw Error(Errc::kDamaged,
                        fmt::format("the capture {} is cut or damaged ({}): what is before that place is shown above",
                                    name_, ::pcap_geterr(capture_.get())));
        }
        if (const auto found = tcp_segment(link_, {bytes, header->caplen}, header->len)) {
            segment = *found;
            return true;
        }
    }
}

} // namespace kvr
