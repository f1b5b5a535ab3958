// SPDX-License-Identifier: Apache-2.0
// Packets for the kernel's tables, and what one costs.
#pragma once

#include <vector>

#include "tests/hw/xdp/packets.h"

namespace Bench {

// Moves this process into a network namespace of its own, once. Throws a std::runtime_error that begins with
// "skipped: " where that is not allowed.
void ownNetwork();

// Rules of a set, or generated ones where the name is a number.
std::vector<Acl::Rule> rulesOf(std::string const& set);

// Frames that the rules match, drawn evenly over the rules. The same rules give the same frames.
std::vector<XdpTest::Bytes> framesFor(std::vector<Acl::Rule> const& rules);

// A program that lets everything pass.
int passingProgram();

// Nanoseconds a packet: the mean over the frames of each one's fastest of some runs.
//   through the program alone
double costOf(int program, std::vector<XdpTest::Bytes> const& frames);
//   through a program that lets it pass, and then into the network stack from the loopback interface
double costInStack(std::vector<XdpTest::Bytes> const& frames);

}  // namespace Bench
