/*
 * The embedded host from inside a program: start a throw-away host for this process and its children,
 * make the platform fail where a test wants it to, and list the calls that reached it.
 *
 * Link with -lvshost (the library that `vshost run` preloads). Everything here works on the host that
 * the process is on, and what is set here (faults, answers, recording) is seen by every process on
 * that host: it lives in memory that they share. All functions may be called from any thread, but for
 * vshost_start and vshost_stop: these change the environment, so no other thread may run meanwhile. Call them
 * before a program starts its threads and after it has ended them.
 */
#ifndef VSHOST_H
#define VSHOST_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VSHOST_API __attribute__((visibility("default")))

/* ---- The host ---------------------------------------------------------------------------------- */

/**
 * Starts a host for this process and the children that it starts from now on, and makes the command
 * `tybel` and the preload known to them through the environment. A host that this process had started
 * before is dropped first. No other thread may run meanwhile: it changes the environment.
 *
 * @param directory  the host's directory, made when it is missing; null makes a throw-away host in
 *                   memory-backed files, removed by vshost_stop or when the process exits
 * @param durable    1: each STATUS_OK of a write is on disk; 0: it survives the death of any process
 * @return 0, or an errno value; vshost_error() then says what is wrong with which file
 */
VSHOST_API int vshost_start(const char *directory, int durable);

/**
 * Leaves the host; one that vshost_start(NULL, …) made is removed with everything in it. No other thread may
 * run meanwhile.
 */
VSHOST_API void vshost_stop(void);

/** Directory of the host that this process is on; null when it is on none. */
VSHOST_API const char *vshost_directory(void);

/** What the last failed call of this thread said about its failure; never null. */
VSHOST_API const char *vshost_error(void);

/**
 * Applies a scenario (JSON text, the format of `vshost run --scenario`) to the host: NICs, links, MAC
 * entries, groups, statistics, options, faults. All of it or, with an error, nothing.
 *
 * @return 0, or EINVAL; vshost_error() then names the key and what is wrong with it
 */
VSHOST_API int vshost_scenario(const char *json);

/**
 * Reboots the host: ends all runtime state (portsets, NICs, MAC tables …) and then runs the portset of each
 * switch that is associated with the host, with its ports and MTU. The store stays.
 */
VSHOST_API int vshost_reset(void);

/* ---- Failures ----------------------------------------------------------------------------------- */

/** What can be made to fail, and what the outcome of a failure is. */
enum vshost_kind {
    VSHOST_STORE = 1,      /**< a store, cache or bundle operation; outcome: the status that it returns
                                (a null handle where it returns a handle, which ignores the outcome) */
    VSHOST_SHELL = 2,      /**< a shell command; outcome: exit code 1 to 255, or one of VSHOST_SHELL_… */
    VSHOST_DRIVER = 3,     /**< a driver command (ioctl); outcome: errno */
    VSHOST_OPEN = 4,       /**< the opening of a device; outcome: errno */
    VSHOST_ALLOCATION = 5, /**< an allocation made by libvswitchctl itself; outcome is ignored */
    VSHOST_CLOSE = 6       /**< the closing of a device: recorded, never fails */
};

/** Outcomes of a shell command that has no exit code. */
#define VSHOST_SHELL_KILLED 256u      /**< the command dies by SIGKILL before it does anything */
#define VSHOST_SHELL_NOT_STARTED 257u /**< system() or popen() cannot start it */

/**
 * Makes calls fail. The call that fails does nothing else. Rules are looked at in the order in which
 * they were made; at most 64 stand at a time.
 *
 * @param kind       what fails
 * @param operation  which: "DVSZOR_PortAdd" (VSHOST_STORE), "create", "destroy", "get", "set", "ls"
 *                   (VSHOST_SHELL: the verb, or "create"/"destroy" for those nodes), "4106" (VSHOST_DRIVER:
 *                   the number), the device's path (VSHOST_OPEN); null: every one of the kind
 * @param nth        the first matching call from now on that fails, counted from 1
 * @param times      how many in a row fail; 0: all from the nth on
 * @param outcome    see enum vshost_kind
 * @return 0, ENOSPC when 64 rules stand, or EINVAL, also for an operation that is unknown or never fails
 */
VSHOST_API int vshost_fail(enum vshost_kind kind, const char *operation, unsigned nth, unsigned times,
                           uint32_t outcome);

/** How many calls the rules made by vshost_fail have failed since the last vshost_clear. */
VSHOST_API unsigned vshost_failed(void);

/**
 * Answers a driver command with given bytes instead of the host's own state: the next `times` calls
 * (0: all) of `command` succeed and write the first min(length, outLength) bytes of `bytes`. Answers to
 * one command are used up in the order in which they were given; at most 16 stand, 65,536 bytes each.
 * At length 0 the call succeeds and writes nothing.
 *
 * @return 0, ENOSPC or EINVAL
 */
VSHOST_API int vshost_answer(uint32_t command, unsigned times, const void *bytes, uint32_t length);

/**
 * Answers shell commands with this verb ("get" or "ls") with given bytes as their standard output,
 * instead of running them; at most 4 stand, 1,048,576 bytes each. @return 0, ENOSPC, or EINVAL for another
 * verb too
 */
VSHOST_API int vshost_shell_output(const char *verb, const void *bytes, uint32_t length);

/**
 * Runs the shell commands of this process inside it from now on (1) or as child processes (0, the
 * default): the same nodes, no fork. For tests and benchmarks that need thousands of them.
 */
VSHOST_API void vshost_shell_in_process(int on);

/** Removes all rules and answers, ends and empties the recording. */
VSHOST_API void vshost_clear(void);

/* ---- What reached the platform ------------------------------------------------------------------ */

/** One call. */
struct vshost_call {
    uint32_t kind;            /**< enum vshost_kind */
    uint32_t outcome;         /**< status, errno or exit code that it returned */
    uint32_t length;          /**< value length, inLength of a request, or allocation size */
    uint32_t flags;           /**< StoreFlags of a write, or outLength of a request */
    int32_t process;          /**< who called */
    char operation[36];       /**< as in vshost_fail */
    char text[512];           /**< store: "switchId portId key" with "-" for what it has not;
                                   shell: the command's arguments, joined by one space;
                                   driver and devices: the device's path */
    unsigned char input[256]; /**< the first 256 bytes of the value written or of the request's input */
};

/** Starts (1) or ends (0) the recording of calls, and empties it when it starts. At most 65,536 are kept. */
VSHOST_API void vshost_record(int on);

/** How many calls were recorded so far. */
VSHOST_API size_t vshost_call_count(void);

/** Copies recorded call `index` (from 0) out. @return 0, or ENOENT */
VSHOST_API int vshost_call(size_t index, struct vshost_call *call);

/**
 * Counts the allocations that libvswitchctl itself has made in this process since the last call of
 * this function, and starts counting again.
 */
VSHOST_API uint64_t vshost_allocations(void);

/**
 * Store values handed out by this process's getters and not yet given back to DVSZOR_DataFree.
 */
VSHOST_API int64_t vshost_values_lent(void);

/* ---- A look at the host's tables ----------------------------------------------------------------- */

/** The level of a property. */
enum vshost_level { VSHOST_GLOBAL = 0, VSHOST_HOST = 1, VSHOST_PORT = 2 };

/**
 * Reads a stored property with its flags, past all faults and recording.
 *
 * @param portId        ignored unless level is VSHOST_PORT
 * @param value         receives at most `capacity` bytes; may be null
 * @param length        receives the value's whole length
 * @param flags         receives its StoreFlags; may be null
 * @return 0, ENOENT, EIO or ENOMEM
 */
VSHOST_API int vshost_property(enum vshost_level level, const char *switchId, const char *portId,
                               const char *key, void *value, uint32_t capacity, uint32_t *length,
                               uint32_t *flags);

/**
 * Fingerprint of everything that is stored and running (switches, ports, properties, portsets, NICs):
 * equal before and after means that nothing changed.
 */
VSHOST_API uint64_t vshost_fingerprint(void);

/* ---- What undoing a change takes ------------------------------------------------------------------
 *
 * These four are in liborkPublic.so, which every program that uses this platform has loaded, with or without
 * the preload. A program that also runs on other platforms looks them up with dlsym(RTLD_DEFAULT, …).
 * They may be called from any thread and run past all faults and recording. Without a host there is no
 * switch: ENOENT. Each of them may also return EINVAL (a pointer is null, a field has no NUL), EIO (the
 * host's database is damaged or cannot be used), ENOMEM, ENOSPC or EROFS. After an error nothing is changed
 * and no output is written.
 */

/**
 * Name and version of this platform: "vshost 1". A process that has this symbol is on a platform of ours,
 * whether or not it is on a host.
 */
VSHOST_API const char *vshost_platform(void);

/** A port of a switch, and what the host gave it. */
struct vshost_port {
    char id[48];         /**< its id */
    uint32_t number;     /**< its kernel number */
    uint32_t isUplink;   /**< 1: it stands in this host's list of the switch's uplink ports */
    char nic[32];        /**< NIC bound to it; empty when there is none, as on every other port */
    uint32_t nicMade;    /**< 1: the host made the NIC for this port and removes it with the port; the NIC's
                              MTU and state go with it. 0: the NIC stays when the port goes. */
    uint32_t nicMtu;     /**< MTU of the NIC in bytes */
    uint32_t nicAdminUp; /**< 1: the NIC is administratively up */
};

/**
 * Lists the ports of a stored switch, whether or not it runs, in the order of their numbers.
 *
 * @param ports     receives the first `capacity` of them; may be null when that is 0
 * @param capacity  how many fit; 0 to learn how many there are
 * @param count     receives how many there are
 * @return 0, ENOENT when there is no such switch, EOVERFLOW when an id has more than 47 bytes
 */
VSHOST_API int vshost_list_ports(const char *switchId, struct vshost_port *ports, size_t capacity,
                                 size_t *count);

/**
 * Gives an existing port the number and, when `nic` is not empty, the NIC that a port had before it was
 * removed: all of it or, with an error, nothing. A NIC with `nicMade` that is gone is made again with its
 * MTU and administrative state. Where another port of the same switch has the number or the NIC, it gets
 * this port's number, and any NIC that is free; so the ports of a switch that was made again can be restored
 * one after another, in any order.
 *
 * @return 0, ENOENT when there is no such switch or port, EBUSY when a port of another switch has the
 *         number or the NIC, ENODEV when the NIC is gone and was not one that the host makes, EINVAL when
 *         this host never gave out such a number or the port of the NIC is not an uplink port
 */
VSHOST_API int vshost_restore_port(const char *switchId, const struct vshost_port *port);

/** Where a property hangs, and what it is called. */
struct vshost_property_name {
    char key[128];
    uint32_t level;  /**< enum vshost_level */
    uint32_t flags;  /**< its StoreFlags, as the store's functions that write a property take them */
    uint32_t length; /**< of its value */
};

/**
 * Lists the properties of a switch, those of the global level first, or those of one port.
 *
 * @param portId  null for the switch's own; otherwise the port
 * @return as vshost_list_ports; ENOENT also when there is no such port, EOVERFLOW when a key has more than
 *         127 bytes
 */
VSHOST_API int vshost_list_properties(const char *switchId, const char *portId,
                                      struct vshost_property_name *names, size_t capacity, size_t *count);

#ifdef __cplusplus
}
#endif
#endif
