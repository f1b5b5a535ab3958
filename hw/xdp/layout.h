// SPDX-License-Identifier: Apache-2.0
// The maps of the software TCAM, as its program in the kernel and the agent see them. C, for both.
//
//   bits[w * byteFields + f][v]   bit i: a packet whose byte f is v may match position 64 * w + i
//   sums[s * byteFields + f][v]   bit i: word 64 * s + i of bits, for f and v, is not 0
//   refs[position]                slot + 1 of the entry that is there, 0 for none
//   records[slot]                 the entry: its match, and what an agent needs to take it over
//   hits[cpu * slots + counter]   packets that an entry decided
//   cpus[cpu]                     the epoch, and packets that no entry decided, by reason
//   shape[0]                      the sizes, where it is attached, and the verdict for those packets
//
// Invariants: the agent alone writes, but for hits and cpus, which each CPU writes for itself. A record is
//   not changed while a position refers to it. A bit may be set in vain, and is never missing.
#pragma once

#include <linux/types.h>

enum {
  layoutVersion = 2,
  mostPositions = 65536,
  mostTableIndexes = 17,
  entryWords = 5,
};

// The bytes of a packet that entries look at.
enum ByteField {
  sourceByte = 0,            // 4, the most significant first
  destinationByte = 4,       // 4
  sourcePortByte = 8,        // 2
  destinationPortByte = 10,  // 2
  flagsByte = 12,            // 2
  protocolByte = 14,
  byteFields = 15,
};

// Why no entry decided.
enum Reason {
  noEntryMatches = 0,
  notIpv4,    // but for ARP
  fragment,   // the first one too
  malformed,  // cut off, or lengths that contradict one another
  arp,        // passes whatever the verdict
  reasons,
};

struct TcamRecord {
  __u32 source, sourceMask;
  __u32 destination, destinationMask;
  __u16 sourcePortLow, sourcePortHigh;
  __u16 destinationPortLow, destinationPortHigh;
  __u16 flags, flagsMask;
  __u8 protocol, protocolMask;
  __u16 action;  // as in the entry's word 0
  __u32 mark;
  __u32 counter;  // its column of hits; that of the key's earlier version
  __u64 key, opId;
  __u32 handle, priority;
  __u32 tableIndexes;  // in use
  __u32 tableIndex[mostTableIndexes];
  __u16 group, unused[3];
  __u64 words[entryWords];
};

// What a look-up adds to its CPU's epoch when it begins, and when it ends. The lower 16 bits count those that
// run, the others those that have ended.
enum {
  lookUpBegins = 1,
  lookUpEnds = 0xFFFF,
  runningLookUps = 0xFFFF,  // mask
};

// A cache line of its own, so that CPUs do not share one.
struct TcamCpu {
  __u64 epoch;
  __u64 undecided[reasons];
  __u64 interleaved;  // look-ups that began while another one ran on this CPU; not 0 once there was one
  __u64 unused;
};

struct TcamShape {
  __u32 version;
  __u32 positions;
  __u32 sums;  // words of 64 times 64 positions
  __u32 slots;
  __u32 permits;    // the verdict for packets that no entry decides
  __u32 hook;       // where it is attached, by the agent's numbers from 1 on; 0: nowhere
  __u32 interface;  // the index
};
