// SPDX-License-Identifier: Apache-2.0
// A publisher with a sample, turned by hand, and what the tests of it do to it.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>

#include <memory>
#include <string>

#include "raw_peer.h"
#include "sample.h"
#include "tests/support/temp_dir.h"

namespace OstraTest {

// An object that does not tell its changes.
class Silent : public Ostra::Described {
 public:
  U32 count() const { return 3; }
  static Ostra::TypeInfo const& staticType() {
    static Ostra::TypeInfo const type =
        Ostra::TypeInfo::of<Silent>("OstraTest::Silent").attribute("count", &Silent::count);
    return type;
  }
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }
};

class Published : public testing::Test {
 protected:
  Published() { publish({}); }
  void publish(Ostra::Publisher::Options options) {
    publisher_.reset();
    publisher_ = std::make_unique<Ostra::Publisher>(path_, options);
    publisher_->exportObject("sample", sample_);
    publisher_->exportObject("silent", Ostra::make<Silent>());
  }
  void pump(int times = 20) {
    for (int i = 0; i < times; ++i) publisher_->dispatch();
  }
  bool hasWork(int milliseconds = 0) const {
    pollfd p{publisher_->fd(), POLLIN, 0};
    return ::poll(&p, 1, milliseconds) > 0;
  }
  // Until the publisher has nothing more to do.
  void settle() {
    for (int i = 0; i < 100000 && hasWork(); ++i) publisher_->dispatch();
    ASSERT_FALSE(hasWork()) << "the publisher comes to rest";
  }
  // The answer to one line.
  std::string ask(RawPeer& peer, std::string const& line) {
    peer.take();
    peer.write(line + '\n');
    for (int i = 0; i < 1000 && peer.lines().empty() && !peer.closed(); ++i) {
      publisher_->dispatch();
      peer.read();
    }
    return peer.lines().empty() ? "no answer" : peer.lines().front();
  }
  // Everything that there is to read now.
  void drain(RawPeer& peer, Picture& picture) {
    std::size_t idle = 0;
    while (idle < 3) {
      pump(4);
      peer.read();
      idle = peer.lines().empty() ? idle + 1 : 0;
      for (std::string const& line : peer.take()) picture.take(line);
    }
  }

  TestSupport::TempDir const dir_;
  std::string const path_ = dir_.path() + "/mgmt.sock";
  Ostra::Ptr<Sample> sample_ = Ostra::make<Sample>("sample");
  std::unique_ptr<Ostra::Publisher> publisher_;
};

}  // namespace OstraTest
