// SPDX-License-Identifier: Apache-2.0
// The look-up of the software TCAM, at XDP and at tc ingress.
//
// Bit vectors filter: for each byte of the packet a row of 64 positions a word, ANDed; a summary level says
// which words are worth it. What is left is verified against the entry's record, first position first. The
// idea is that of the bit-vector scheme of Lakshman and Stiliadis (1998).
//
// A look-up runs between two additions to its CPU's epoch. Each is an atomic with a result, which orders
// everything before it before everything behind it. tcam.cpp argues why that is enough. It runs with
// softirqs off, at both hooks and in test runs, so that look-ups of a CPU neither nest nor interleave; but
// on a real-time kernel they may. One that does says so, and the agent drains in another way. Hits and
// packets that no entry decided are then counted too low at times.
//
// What the table describes: whole IPv4 packets, with up to two VLAN tags and any IP options passed over.
// Ports are those of TCP, UDP, UDP-Lite, DCCP and SCTP, and 0 for others; flags are the lower 12 bits of the
// TCP header's bytes 12 and 13, and 0 for others. All else is not described: fragments, the first one too,
// other protocols than IPv4, packets cut off. Those get the verdict of packets that no entry matches, and are
// counted by reason; ARP alone passes always.
#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/in.h>
#include <linux/ip.h>
#include <linux/pkt_cls.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "layout.h"

// The agent sets the real sizes before it loads.
struct Row {
  __u64 of[256];  // by the byte's value
};

#define ARRAY(name, of)                \
  struct {                             \
    __uint(type, BPF_MAP_TYPE_ARRAY);  \
    __uint(map_flags, BPF_F_MMAPABLE); \
    __uint(max_entries, 1);            \
    __type(key, __u32);                \
    __type(value, of);                 \
  } name SEC(".maps")

ARRAY(bits, struct Row);
ARRAY(sums, struct Row);
ARRAY(refs, __u64);
ARRAY(records, struct TcamRecord);
ARRAY(hits, __u64);
ARRAY(cpus, struct TcamCpu);
ARRAY(shape, struct TcamShape);

enum { tcp = 6, udp = 17, dccp = 33, sctp = 132, udpLite = 136, decided = reasons, mostVlanTags = 2 };

struct Packet {
  __u32 source, destination;
  __u16 sourcePort, destinationPort, flags;
  __u8 protocol;
};

struct Search {
  struct Packet packet;
  __u32 sumCount, nextSum, sumAt, wordAt;
  __u64 sum, word;  // what is left of them
  __u64 found;      // the reference of the entry that matched, 0 for none
};

static __always_inline int portsBegin(__u8 protocol) {
  return protocol == tcp || protocol == udp || protocol == dccp || protocol == sctp || protocol == udpLite;
}

static __always_inline enum Reason parseTransport(struct iphdr* ip, void* end, struct Packet* p) {
  __u32 const header = ip->ihl * 4U;
  __u32 const wanted = p->protocol == tcp ? 14 : 4;
  __u8* transport = (__u8*)ip + header;
  if (bpf_ntohs(ip->tot_len) < header + wanted) return malformed;
  if (transport + 4 > (__u8*)end) return malformed;
  p->sourcePort = (__u16)(transport[0] << 8 | transport[1]);
  p->destinationPort = (__u16)(transport[2] << 8 | transport[3]);
  if (p->protocol != tcp) return decided;
  if (transport + 14 > (__u8*)end) return malformed;
  p->flags = (__u16)((transport[12] << 8 | transport[13]) & 0x0FFF);
  return decided;
}

static __always_inline enum Reason parseIpv4(struct iphdr* ip, void* end, struct Packet* p) {
  if ((void*)(ip + 1) > end) return malformed;
  if (ip->version != 4 || ip->ihl < 5 || bpf_ntohs(ip->tot_len) < ip->ihl * 4U) return malformed;
  if ((void*)((__u8*)ip + ip->ihl * 4U) > end) return malformed;
  if (ip->frag_off & bpf_htons(0x3FFF)) return fragment;
  p->source = bpf_ntohl(ip->saddr);
  p->destination = bpf_ntohl(ip->daddr);
  p->protocol = ip->protocol;
  return portsBegin(p->protocol) ? parseTransport(ip, end, p) : decided;
}

// `decided` for a packet that the table describes.
static __always_inline enum Reason parse(void* data, void* end, struct Packet* p) {
  struct ethhdr* ethernet = data;
  if ((void*)(ethernet + 1) > end) return malformed;
  __u16 type = ethernet->h_proto;
  __u8* at = (__u8*)(ethernet + 1);
#pragma unroll
  for (int tag = 0; tag < mostVlanTags; ++tag) {
    if (type != bpf_htons(ETH_P_8021Q) && type != bpf_htons(ETH_P_8021AD)) break;
    if (at + 4 > (__u8*)end) return malformed;
    type = *(__u16*)(at + 2);
    at += 4;
  }
  if (type == bpf_htons(ETH_P_ARP)) return arp;
  if (type != bpf_htons(ETH_P_IP)) return notIpv4;
  return parseIpv4((struct iphdr*)at, end, p);
}

#define ROW(map, base, field, value)                         \
  ({                                                         \
    __u32 const key = (base)*byteFields + (field);           \
    struct Row* const row = bpf_map_lookup_elem(&map, &key); \
    row ? *(volatile __u64*)&row->of[(__u8)(value)] : 0;     \
  })

#define ALL_FIELDS(map, base, p)                                                                           \
  (ROW(map, base, destinationByte, (p)->destination >> 24) &                                               \
   ROW(map, base, destinationByte + 1, (p)->destination >> 16) &                                           \
   ROW(map, base, destinationByte + 2, (p)->destination >> 8) &                                            \
   ROW(map, base, destinationByte + 3, (p)->destination) & ROW(map, base, sourceByte, (p)->source >> 24) & \
   ROW(map, base, sourceByte + 1, (p)->source >> 16) & ROW(map, base, sourceByte + 2, (p)->source >> 8) &  \
   ROW(map, base, sourceByte + 3, (p)->source) &                                                           \
   ROW(map, base, destinationPortByte, (p)->destinationPort >> 8) &                                        \
   ROW(map, base, destinationPortByte + 1, (p)->destinationPort) &                                         \
   ROW(map, base, sourcePortByte, (p)->sourcePort >> 8) &                                                  \
   ROW(map, base, sourcePortByte + 1, (p)->sourcePort) & ROW(map, base, flagsByte, (p)->flags >> 8) &      \
   ROW(map, base, flagsByte + 1, (p)->flags) & ROW(map, base, protocolByte, (p)->protocol))

// The number of the lowest bit that is set, by a de Bruijn sequence.
static __u8 const lowestBit[64] = {0,  1,  2,  53, 3,  7,  54, 27, 4,  38, 41, 8,  34, 55, 48, 28,
                                   62, 5,  39, 46, 44, 42, 22, 9,  24, 35, 59, 56, 49, 18, 29, 11,
                                   63, 52, 6,  26, 37, 40, 33, 47, 61, 45, 43, 21, 23, 58, 17, 10,
                                   51, 25, 36, 32, 60, 20, 57, 16, 50, 31, 19, 15, 30, 14, 13, 12};

static __always_inline __u32 takeLowest(__u64* word) {
  __u64 const lowest = *word & -*word;
  *word ^= lowest;
  return lowestBit[(lowest * 0x022FDD63CC95386DULL) >> 58 & 63];
}

static __always_inline int matches(struct TcamRecord const* r, struct Packet const* p) {
  return (p->source & r->sourceMask) == r->source &&
         (p->destination & r->destinationMask) == r->destination && p->sourcePort >= r->sourcePortLow &&
         p->sourcePort <= r->sourcePortHigh && p->destinationPort >= r->destinationPortLow &&
         p->destinationPort <= r->destinationPortHigh && (p->flags & r->flagsMask) == r->flags &&
         (p->protocol & r->protocolMask) == r->protocol;
}

// The position's reference, 0 when it is free or its entry does not match.
static __always_inline __u64 verified(__u32 position, struct Packet const* p) {
  __u64* const ref = bpf_map_lookup_elem(&refs, &position);
  if (!ref) return 0;
  __u64 const held = *(volatile __u64*)ref;
  if (held == 0) return 0;
  __u32 const slot = (__u32)(held - 1);
  struct TcamRecord* const record = bpf_map_lookup_elem(&records, &slot);
  return record && matches(record, p) ? held : 0;
}

// The next candidate, or the next word of them, or the next summary. Returns 1 to end the search.
static long step(__u64 turn, struct Search* s) {
  (void)turn;
  if (s->word != 0) {
    s->found = verified(s->wordAt * 64 + takeLowest(&s->word), &s->packet);
    return s->found != 0;
  }
  if (s->sum != 0) {
    s->wordAt = s->sumAt * 64 + takeLowest(&s->sum);
    s->word = ALL_FIELDS(bits, s->wordAt, &s->packet);
    return 0;
  }
  if (s->nextSum >= s->sumCount) return 1;
  s->sumAt = s->nextSum++;
  s->sum = ALL_FIELDS(sums, s->sumAt, &s->packet);
  return 0;
}

enum { mostSteps = mostPositions + mostPositions / 64 + mostPositions / 64 / 64 + 1 };

struct Verdict {
  __u16 action;
  __u32 mark;
};

enum { permit = 0, deny = 1, setMark = 2 };

static __always_inline struct Verdict decide(void* data, void* end) {
  struct Verdict const broken = {deny, 0};
  __u32 const zero = 0;
  __u32 const number = bpf_get_smp_processor_id();
  struct TcamShape const* const sh = bpf_map_lookup_elem(&shape, &zero);
  struct TcamCpu* const cpu = bpf_map_lookup_elem(&cpus, &number);
  if (!sh || !cpu) return broken;

  struct Verdict verdict = {sh->permits ? permit : deny, 0};
  struct Search s = {.sumCount = sh->sums};
  enum Reason reason = parse(data, end, &s.packet);
  if (reason == decided) {
    __u64 was = __sync_fetch_and_add(&cpu->epoch, lookUpBegins);
    if (was & runningLookUps) ++cpu->interleaved;
    bpf_loop(mostSteps, step, &s, 0);
    __u32 const slot = (__u32)(s.found - 1);
    struct TcamRecord* const record = s.found ? bpf_map_lookup_elem(&records, &slot) : 0;
    if (record) {
      verdict.action = record->action;
      verdict.mark = record->mark;
      __u32 const counter = number * sh->slots + record->counter;
      __u64* const hit = bpf_map_lookup_elem(&hits, &counter);
      if (hit) ++*hit;
    } else {
      reason = noEntryMatches;
    }
    was += __sync_fetch_and_add(&cpu->epoch, lookUpEnds);
    asm volatile("" ::"r"(was));
  }
  if (reason < reasons) ++cpu->undecided[reason];
  if (reason == arp) verdict.action = permit;
  return verdict;
}

SEC("xdp")
int atXdp(struct xdp_md* context) {
  struct Verdict const v = decide((void*)(long)context->data, (void*)(long)context->data_end);
  return v.action == deny ? XDP_DROP : XDP_PASS;
}

enum { mostHeaders = ETH_HLEN + 4 * mostVlanTags + 60 + 14 };

SEC("tc")
int atTc(struct __sk_buff* packet) {
  __u32 const wanted = packet->len < mostHeaders ? packet->len : mostHeaders;
  if (packet->data_end - packet->data < wanted) bpf_skb_pull_data(packet, wanted);
  struct Verdict const v = decide((void*)(long)packet->data, (void*)(long)packet->data_end);
  if (v.action == setMark) packet->mark = v.mark;
  return v.action == deny ? TC_ACT_SHOT : TC_ACT_OK;
}

char LICENSE[] SEC("license") = "Apache-2.0";
