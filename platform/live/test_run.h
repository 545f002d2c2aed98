/**
 * @file
 * What a test sees and sets when it has the kernel run the data path without interfaces: copies that would
 * have been sent, the time, and links that refuse.
 */
#pragma once

#include <stdint.h>

#define LIVE_TEST_COPIES 128u
#define LIVE_TEST_LINKS 64u
#define LIVE_TEST_HEAD 64u

/** A frame as it would have left; the tag stands beside the bytes. */
struct LiveTestCopy {
    uint32_t ifindex;
    uint32_t length;
    uint32_t tagType; /* EtherType of the tag; 0: no tag */
    uint32_t tci;
    uint8_t head[LIVE_TEST_HEAD];
};

/** The one value of a map that the test has in its memory. */
struct LiveTestRun {
    uint64_t now;                         /* the data path's clock in ns */
    uint32_t ifindex;                     /* the interface that the frame came by */
    uint32_t count;                       /* copies sent, those beyond LIVE_TEST_COPIES too */
    int32_t linkResults[LIVE_TEST_LINKS]; /* what sending answers, by ifindex % LIVE_TEST_LINKS */
    struct LiveTestCopy copies[LIVE_TEST_COPIES];
};
