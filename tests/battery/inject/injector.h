// SPDX-License-Identifier: MIT
// A test's side of the preloaded library: makes the shared page, arms one attack after the other, reads the findings.
#pragma once

#include <filesystem>
#include <string>

#include "battery/field.h"
#include "control.h"

namespace kvr::test {

class Injector {
  public:
    /// The shared file lies in the field's home.
    explicit Injector(const Field& field);
    ~Injector();
    Injector(const Injector&) = delete;
    Injector& operator=(const Injector&) = delete;

    /// What a worker needs in its environment to come under attack.
    [[nodiscard]] Environment environment() const;
    [[nodiscard]] inject::Control& control() { return *control_; }
    [[nodiscard]] const inject::Control& control() const { return *control_; }

    /// From the first attack on the channel's pauses are short.
    void arm(const inject::Attack& attack);
    void disarm() { control_->phase = inject::Phase::kDone; }
    /// Waits until the channel waits for its next message; false when the worker ended instead. Fails the test when
    /// neither happens.
    bool done(const Child& worker, const std::string& what);
    /// No byte astray, nothing allocated, released or closed in a handler.
    void expect_no_finding() const;

  private:
    std::filesystem::path file_;
    inject::Control* control_;
};

} // namespace kvr::test
