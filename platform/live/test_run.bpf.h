// How the data path meets the world in a test run: it has no interfaces, the test says where a frame comes
// from and what time it is, and sending writes down what would have left.
#pragma once

#include "platform/live/test_run.h"

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, 1);
    __type(key, uint32_t);
    __type(value, struct LiveTestRun);
} test_run SEC(".maps");

static __always_inline struct LiveTestRun *TestRun(void)
{
    const uint32_t first = 0;
    return bpf_map_lookup_elem(&test_run, &first);
}

static __always_inline uint64_t Now(const struct LiveHost *limits)
{
    struct LiveTestRun *run = TestRun();
    return run ? run->now : 0;
}

static __always_inline uint32_t IngressInterface(struct __sk_buff *skb)
{
    struct LiveTestRun *run = TestRun();
    return run ? run->ifindex : 0;
}

static __always_inline void WriteDown(struct __sk_buff *skb, uint32_t ifindex, struct LiveTestCopy *copy)
{
    copy->ifindex = ifindex;
    copy->length = skb->len;
    copy->tagType = skb->vlan_present ? bpf_ntohs((uint16_t)skb->vlan_proto) : 0;
    copy->tci = skb->vlan_present ? skb->vlan_tci : 0;
    uint32_t size = skb->len;
    if (size > LIVE_TEST_HEAD) size = LIVE_TEST_HEAD;
    if (size > 0) bpf_skb_load_bytes(skb, 0, copy->head, size);
}

static __always_inline long Send(struct __sk_buff *skb, uint32_t ifindex)
{
    struct LiveTestRun *run = TestRun();
    if (!run) return -1;
    int32_t result = run->linkResults[ifindex % LIVE_TEST_LINKS];
    if (result) return result;
    uint32_t index = run->count++;
    if (index < LIVE_TEST_COPIES) WriteDown(skb, ifindex, &run->copies[index]);
    return 0;
}

static __always_inline int SendLast(struct __sk_buff *skb, uint32_t ifindex)
{
    Send(skb, ifindex);
    return TC_ACT_SHOT;
}
