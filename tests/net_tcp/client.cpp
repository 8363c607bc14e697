// SPDX-License-Identifier: MIT
#include "net_tcp/client.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>

#include <poll.h>
#include <sys/ioctl.h>

namespace kvr::test {
namespace {

std::function<void()> handler_action;
std::atomic<int> handler_runs;
volatile sig_atomic_t handler_running = 0;

void run_handler(int) {
    const int saved = errno;
    handler_running = 1;
    handler_action();
    handler_running = 0;
    handler_runs++;
    errno = saved;
}

} // namespace

std::vector<std::string>& logged_lines() {
    static std::vector<std::string> lines;
    return lines;
}

int record_line(char*, int iLevel, char* psMod, char* psFile, int, const char* psFunc, char* psFmt, ...) {
    if (handler_running != 0) {
        return 0;
    }
    char text[4096];
    va_list arguments;
    va_start(arguments, psFmt);
    vsnprintf(text, sizeof(text), psFmt, arguments);
    va_end(arguments);
    logged_lines().push_back(std::to_string(iLevel) + " " + psMod + "/" + psFile + "/" + psFunc + " " + text);
    errno = EDOM; // a log function may do that
    return 0;
}

Client::Client(Carrier carrier) : tls_option_(carrier == Carrier::kPlain ? 0 : NET_TCP_OPT_SSL) {
    signal(SIGPIPE, SIG_IGN);
    logged_lines().clear();
    netTcpClientCreate(&record, record_line);
    if (tls_option_ != 0) {
        set_text(record.sCaFile, tls_material().ca_file);
        set_text(record.sCertFile, tls_material().client.cert_file);
        set_text(record.sKeyFile, tls_material().client.key_file);
    }
}

int Client::connect(int port, const char* address, int options) {
    std::string text = address;
    return record.pfnConnect(&record, text.data(), port, options);
}

int Client::write(const std::string& data) {
    // The operation only reads what its parameter lets it write.
    return record.pfnWrite(&record, const_cast<char*>(data.data()), static_cast<int>(data.size()), 0);
}

void Client::expect_down(bool context) const {
    EXPECT_EQ(record.iStat, 0);
    EXPECT_EQ(record.iSocketNo, 0);
    EXPECT_EQ(record.ssl, nullptr);
    EXPECT_EQ(record.ctx != nullptr, context);
}

int Client::pending() const {
    int bytes = 0;
    ioctl(record.iSocketNo, FIONREAD, &bytes);
    return bytes;
}

bool Client::stalled() const {
    pollfd asked{record.iSocketNo, POLLOUT, 0};
    return poll(&asked, 1, 0) == 0;
}

Handler::Handler(std::function<void()> action) {
    handler_action = std::move(action);
    handler_runs = 0;
    struct sigaction handler {};
    handler.sa_handler = run_handler;
    sigaction(SIGUSR2, &handler, &before_);
}

Handler::~Handler() {
    sigaction(SIGUSR2, &before_, nullptr);
}

int Handler::runs() {
    return handler_runs;
}

const std::string& huge_data() {
    constexpr std::size_t kSize = 48'000'000;
    static const std::string data(kSize, 'x'); // NOLINT(bugprone-string-constructor): meant to be that large
    return data;
}

} // namespace kvr::test
