// SPDX-License-Identifier: MIT
#include "injector.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace kvr::test {
namespace {

using inject::Control;
using inject::Phase;

constexpr auto kHang = std::chrono::seconds(10);
constexpr auto kLookAgain = std::chrono::microseconds(50);

} // namespace

Injector::Injector(const Field& field) : file_(field.home() / "inject") {
    const int fd = ::open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ::ftruncate(fd, sizeof(Control)) != 0) {
        throw std::runtime_error("no file to share with the preloaded library");
    }
    void* page = ::mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (page == MAP_FAILED) {
        throw std::runtime_error("no page to share with the preloaded library");
    }
    control_ = new (page) Control{};
}

Injector::~Injector() {
    ::munmap(control_, sizeof(Control));
}

Environment Injector::environment() const {
#ifdef __SANITIZE_ADDRESS__
    return {}; // the sanitizers' runtime is the only one that watches then
#else
    // The C library then fills released blocks, so that a use after the release shows.
    return {{"LD_PRELOAD", KVR_INJECT_LIBRARY}, {inject::kControlVariable, file_.native()}, {"MALLOC_PERTURB_", "165"}};
#endif
}

void Injector::arm(const inject::Attack& attack) {
    Control& control = *control_;
    control.phase = Phase::kDone;
    control.attack = attack;
    control.calls = 0;
    control.fired = 0;
    control.value = 0;
    std::memset(control.name, 0, sizeof(control.name));
    control.phase = Phase::kArmed;
}

bool Injector::done(const Child& worker, const std::string& what) {
    const auto deadline = std::chrono::steady_clock::now() + kHang;
    while (control_->phase != Phase::kDone) {
        if (has_ended(worker)) {
            return control_->phase == Phase::kDone;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "the channel hangs after " << what << " at " << control_->name;
            return false;
        }
        std::this_thread::sleep_for(kLookAgain);
    }
    return true;
}

void Injector::expect_no_finding() const {
    EXPECT_EQ(control_->heap_in_handler, 0) << control_->finding;
    EXPECT_EQ(control_->closed_in_handler, 0) << control_->finding;
    EXPECT_EQ(control_->foreign_bytes, 0) << control_->finding;
    EXPECT_EQ(control_->foreign_closes, 0) << control_->finding;
}

} // namespace kvr::test
