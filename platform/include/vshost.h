/*
 * The embedded host from inside a program: start a throw-away host for this process and its children,
 * make calls of the platform fail, and list the calls that reached it.
 *
 * Link with -lvshost (the library that `vshost run` preloads). Every function works on the host that the
 * process is on. Faults, answers and the recording live in memory that all processes on a host share, so
 * every one of them sees what is set here. All functions may be called from any thread, except vshost_start
 * and vshost_stop: these two change the environment, so no other thread may run meanwhile. Call them before
 * the program starts its threads and after it has ended them.
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
 * Starts a host for this process and for the children that it starts from now on. The environment tells the
 * children where the host, the command `tybel` and the preload are. If the process is on a host already, it
 * leaves that host first. No other thread may run meanwhile: the environment changes.
 *
 * @param directory  the host's directory, created if it is missing; null makes a throw-away host in
 *                   memory-backed files, which vshost_stop or the exit of the process removes
 * @param durable    1: a write that returns STATUS_OK is on disk; 0: it survives the death of any process
 * @return 0, or an errno value; vshost_error() then names the file and says what is wrong with it
 */
VSHOST_API int vshost_start(const char *directory, int durable);

/**
 * Leaves the host. A host that vshost_start(NULL, …) made is removed with everything in it. No other thread
 * may run meanwhile.
 */
VSHOST_API void vshost_stop(void);

/**
 * Directory of the host that this process is on; null when it is not on a host. liborkPublic.so exports this
 * function too, for programs without the preload.
 */
VSHOST_API const char *vshost_directory(void);

/** The message of the last call that failed in this thread; never null. */
VSHOST_API const char *vshost_error(void);

/**
 * Applies a scenario (JSON text, the format of `vshost run --scenario`) to the host: NICs, links, MAC
 * entries, groups, statistics, options, faults. After an error nothing of it is applied.
 *
 * @return 0, or EINVAL; vshost_error() then names the key and says what is wrong with it
 */
VSHOST_API int vshost_scenario(const char *json);

/**
 * Reboots the host: ends all runtime state (portsets, NICs, MAC tables …), then starts the portset of each
 * switch that is associated with the host, with its ports and MTU. The store is not changed.
 */
VSHOST_API int vshost_reset(void);

/* ---- Failures ----------------------------------------------------------------------------------- */

/** What can fail, and what the outcome of a failure is. */
enum vshost_kind {
    VSHOST_STORE = 1,      /**< a store, cache or bundle operation; outcome: the status that it returns. An
                                operation that returns a handle returns null and ignores the outcome. */
    VSHOST_SHELL = 2,      /**< a shell command; outcome: exit code 1 to 255, or one of VSHOST_SHELL_… */
    VSHOST_DRIVER = 3,     /**< a driver command (ioctl); outcome: errno */
    VSHOST_OPEN = 4,       /**< the opening of a device; outcome: errno */
    VSHOST_ALLOCATION = 5, /**< an allocation made by libvswitchctl itself; the outcome is ignored */
    VSHOST_CLOSE = 6       /**< the closing of a device: recorded, never fails */
};

/** Outcomes of a shell command that has no exit code. */
#define VSHOST_SHELL_KILLED 256u      /**< the command dies by SIGKILL before it does anything */
#define VSHOST_SHELL_NOT_STARTED 257u /**< system() or popen() cannot start it */

/**
 * Adds a rule that makes calls fail. A call that fails has no other effect. If several rules match, the first
 * one added decides. A host holds at most 64 rules.
 *
 * @param kind       what fails
 * @param operation  which: "DVSZOR_PortAdd" (VSHOST_STORE), "create", "destroy", "get", "set", "ls"
 *                   (VSHOST_SHELL: the verb, or "create"/"destroy" for those nodes), "4106" (VSHOST_DRIVER:
 *                   the number), the device's path (VSHOST_OPEN); null: every operation of the kind
 * @param nth        the first matching call that fails, counted from 1 and from now on
 * @param times      how many matching calls in a row fail; 0: all of them from the nth on
 * @param outcome    see enum vshost_kind
 * @return 0, ENOSPC when there are 64 rules, or EINVAL, also for an operation that is unknown or never fails
 */
VSHOST_API int vshost_fail(enum vshost_kind kind, const char *operation, unsigned nth, unsigned times,
                           uint32_t outcome);

/** How many calls the rules have failed since the last vshost_clear. */
VSHOST_API unsigned vshost_failed(void);

/**
 * Sets the answer of a driver command, which then does not depend on the host's state: the next `times`
 * calls (0: all) of `command` succeed and write the first min(length, outLength) bytes of `bytes`. Answers of
 * one command are used in the order in which they were set. A host holds at most 16 answers of at most 65,536
 * bytes each. With length 0 the call succeeds and writes nothing.
 *
 * @return 0, ENOSPC or EINVAL
 */
VSHOST_API int vshost_answer(uint32_t command, unsigned times, const void *bytes, uint32_t length);

/**
 * Sets the standard output of shell commands with this verb ("get" or "ls"), which then do not run. A host
 * holds at most 4 outputs of at most 1,048,576 bytes each.
 *
 * @return 0, ENOSPC, or EINVAL, also for another verb
 */
VSHOST_API int vshost_shell_output(const char *verb, const void *bytes, uint32_t length);

/**
 * Runs the shell commands of this process from now on inside the process, without a fork (1), or as child
 * processes (0, the default). For tests and benchmarks that run thousands of them.
 */
VSHOST_API void vshost_shell_in_process(int on);

/** Removes all rules and answers; ends the recording and empties it. */
VSHOST_API void vshost_clear(void);

/* ---- What reached the platform ------------------------------------------------------------------ */

/** One call. */
struct vshost_call {
    uint32_t kind;            /**< enum vshost_kind */
    uint32_t outcome;         /**< status, errno or exit code that it returned */
    uint32_t length;          /**< value length, inLength of a request, or allocation size */
    uint32_t flags;           /**< StoreFlags of a write, or outLength of a request */
    int32_t process;          /**< id of the calling process */
    char operation[36];       /**< as in vshost_fail */
    char text[512];           /**< store: "switchId portId key" with "-" for an argument it doesn't take;
                                   shell: the command's arguments, joined by one space;
                                   driver and devices: the device's path */
    unsigned char input[256]; /**< the first 256 bytes of the value written or of the request's input */
};

/** Starts (1) or ends (0) the recording of calls. A start empties it. It keeps the last 65,536 calls. */
VSHOST_API void vshost_record(int on);

/** How many calls were recorded since the start. */
VSHOST_API size_t vshost_call_count(void);

/** Copies recorded call `index` (from 0) to `call`. @return 0, or ENOENT */
VSHOST_API int vshost_call(size_t index, struct vshost_call *call);

/**
 * Returns how many allocations libvswitchctl itself has made in this process since the last call of this
 * function, and starts counting again from 0.
 */
VSHOST_API uint64_t vshost_allocations(void);

/**
 * How many store values this process's getters have handed out and DVSZOR_DataFree has not yet released.
 */
VSHOST_API int64_t vshost_values_lent(void);

/* ---- A look at the host's tables ----------------------------------------------------------------- */

/** The level of a property. */
enum vshost_level { VSHOST_GLOBAL = 0, VSHOST_HOST = 1, VSHOST_PORT = 2 };

/**
 * Reads a stored property with its flags. No fault applies, and nothing is recorded.
 *
 * @param portId        ignored unless level is VSHOST_PORT
 * @param value         receives at most `capacity` bytes; may be null
 * @param length        receives the whole length of the value; may be null
 * @param flags         receives its StoreFlags; may be null
 * @return 0, ENOENT, EIO or ENOMEM
 */
VSHOST_API int vshost_property(enum vshost_level level, const char *switchId, const char *portId,
                               const char *key, void *value, uint32_t capacity, uint32_t *length,
                               uint32_t *flags);

/**
 * Fingerprint of everything that is stored and running (switches, ports, properties, portsets, NICs). If it
 * is equal before and after an operation, the operation changed nothing.
 */
VSHOST_API uint64_t vshost_fingerprint(void);

/* ---- Looking at a host, and undoing a change -------------------------------------------------------
 *
 * liborkPublic.so exports these six functions and vshost_bulk(). Every program that uses this platform has
 * loaded it, with or without the preload. A program that also runs on other platforms looks them up with
 * dlsym(RTLD_DEFAULT, …). They may be called from any thread. No fault applies to them, and they are not
 * recorded. A process that is not on a host finds no switch: ENOENT. Each function may also return EINVAL (a
 * pointer is null, a field has no NUL), EIO (the host's database is damaged or cannot be used), ENOMEM,
 * ENOSPC or EROFS. After an error nothing is changed and no output is written.
 */

/**
 * Name and version of this platform: "vshost 1". A process that finds this symbol runs on this platform,
 * whether or not it is on a host.
 */
VSHOST_API const char *vshost_platform(void);

/** A port of a switch, and what the host assigned to it. */
struct vshost_port {
    char id[48];         /**< its id */
    uint32_t number;     /**< its kernel number */
    uint32_t isUplink;   /**< 1: this host lists it among the switch's uplink ports */
    char nic[32];        /**< NIC bound to an uplink port; empty when no NIC is bound to the port */
    uint32_t nicMade;    /**< 1: the host made the NIC for this port and removes it with the port, together
                              with the NIC's MTU and state. 0: the NIC stays when the port is removed. */
    uint32_t nicMtu;     /**< MTU of the NIC in bytes */
    uint32_t nicAdminUp; /**< 1: the NIC is administratively up */
    char interface[16];  /**< network interface that is plugged to the port; empty when none is */
    uint64_t properties; /**< hash of its properties without its alias, status and statistics: ports with
                            equal properties have equal hashes */
};

/**
 * Lists the ports of a stored switch, whether or not it runs, in the order of their numbers.
 *
 * @param ports     receives the first `capacity` ports; may be null when `capacity` is 0
 * @param capacity  how many entries `ports` has room for; 0 to learn how many ports there are
 * @param count     receives how many ports the switch has
 * @return 0, ENOENT when there is no such switch, EOVERFLOW when an id has more than 47 bytes
 */
VSHOST_API int vshost_list_ports(const char *switchId, struct vshost_port *ports, size_t capacity,
                                 size_t *count);

/**
 * Gives an existing port the number and, when `nic` is not empty, the NIC that a port had before it was
 * removed. If the NIC is gone and `nicMade` is 1, the host makes it again with its MTU and administrative
 * state. If another port of the same switch has the number, that port gets this port's number in exchange; if
 * it has the NIC, it gets any free NIC. So the ports of a switch that was made again can be restored one
 * after another, in any order.
 *
 * @return 0, ENOENT when there is no such switch or port, EBUSY when a port of another switch has the
 *         number or the NIC, ENODEV when the NIC is gone and `nicMade` is 0, EINVAL when this host never gave
 *         out the number or the port is to get a NIC and is not an uplink port
 */
VSHOST_API int vshost_restore_port(const char *switchId, const struct vshost_port *port);

/** A property: its key, its level, its flags and the length of its value. */
struct vshost_property_name {
    char key[128];
    uint32_t level;  /**< enum vshost_level */
    uint32_t flags;  /**< its StoreFlags, as the store's functions that write a property take them */
    uint32_t length; /**< of its value */
};

/**
 * Lists the properties of a switch, the global level first, or the properties of one port.
 *
 * @param portId  the port; null for the properties of the switch itself
 * @return as vshost_list_ports; ENOENT also when there is no such port, EOVERFLOW when a key has more than
 *         127 bytes
 */
VSHOST_API int vshost_list_properties(const char *switchId, const char *portId,
                                      struct vshost_property_name *names, size_t capacity, size_t *count);

/** A physical NIC of the host. */
struct vshost_nic {
    char name[32];
    char switchId[64]; /**< the switch and the uplink port that the NIC is bound to; empty when it is free */
    char portId[48];
    uint32_t speed; /**< Mb/s; 0: unknown */
    uint32_t fullDuplex;
    uint32_t link;    /**< 1: it has a carrier */
    uint32_t adminUp; /**< 1: it is administratively up */
    uint32_t mtu;     /**< bytes */
    int32_t numaNode;
};

/**
 * Lists the physical NICs of the host, shorter names first: nic2 before nic10.
 *
 * @return as vshost_list_ports; ENOENT when this process is not on a host
 */
VSHOST_API int vshost_list_nics(struct vshost_nic *nics, size_t capacity, size_t *count);

/** A policy record of the store that hosts of ours keep and don't enforce, see vswitch_policy.h. */
struct vshost_policy_fault {
    char portId[48]; /**< its port; empty: of the switch itself */
    char key[128];   /**< its property */
    char reason[80]; /**< why it is not enforced, like "its version is not known" */
};

/**
 * Lists such records of a stored switch and its ports: first the switch's, then those of the ports in the
 * order of their numbers.
 *
 * @return as vshost_list_ports
 */
VSHOST_API int vshost_list_policy_faults(const char *switchId, struct vshost_policy_fault *faults,
                                         size_t capacity, size_t *count);

/* ---- Plugging ---------------------------------------------------------------------------------------
 *
 * liborkPublic.so exports these four functions and vshost_error. They work on a live host, one that vshostd
 * runs, and need root. They may be called from any thread. Each returns when the next frame obeys it. After
 * an error nothing is changed, and vshost_error() says in one line what is wrong and what to do. Besides the
 * values below each function may return one of these:
 *   - ENOENT: this process is not on a host
 *   - ECONNREFUSED: vshostd doesn't run on the host
 *   - EACCES: the caller is not root
 *   - EINVAL: a pointer is null, or vshostd is of another version
 *   - EIO: the host's database is damaged or cannot be used, or vshostd died three times
 *   - ENOSPC: the disk is full
 */

/**
 * Plugs a network interface of the machine to a port of a switch. Its frames no longer reach the machine's
 * own network; its MTU becomes that of the switch. An interface that goes away is plugged again when it comes
 * back.
 *
 * @param switchName  alias, id or portset name of the switch
 * @param portId      a port that is not an uplink port
 * @param interface   name of the interface in the network namespace of vshostd
 * @param keep        1: it stays plugged after the machine's next start; 0: the plug ends with this start
 * @return 0, ENODEV when there is no such interface, EBUSY when another program or another host uses it,
 * EEXIST when the interface is plugged or the port has one already, ENOENT when there is no such switch or
 *         port, EINVAL when it is an uplink port
 */
VSHOST_API int vshost_plug(const char *switchName, const char *portId, const char *interface, int keep);

/**
 * Unplugs an interface from its port, and puts back what plugging has changed.
 *
 * @return 0, ENOENT when it is not plugged to a port
 */
VSHOST_API int vshost_unplug(const char *interface);

/**
 * Makes a network interface of the machine a physical NIC of the host, under its name. It is bound to uplink
 * ports as every NIC of the host.
 *
 * @return 0, ENODEV or EBUSY as vshost_plug, EEXIST when the interface is plugged or the host has a NIC of
 * the name
 */
VSHOST_API int vshost_add_nic(const char *interface, int keep);

/**
 * Removes a NIC that vshost_add_nic made, and gives its interface back to the machine. Its uplink port gets
 * another NIC.
 *
 * @return 0, ENOENT when the interface is not a NIC of the host
 */
VSHOST_API int vshost_remove_nic(const char *interface);

/* ---- Changes of several writes --------------------------------------------------------------------- */

/**
 * Between vshost_bulk(1) and vshost_bulk(0) the writes of this process are stored one by one, and a live host
 * forwards by all of them from the return of vshost_bulk(0) on, or earlier. A write that the data path cannot
 * carry out is refused as ever. If the process ends in between, the host forwards by what is stored. Bulks
 * may be nested: the last vshost_bulk(0) counts. On an emulated host nothing differs.
 *
 * @param on  1: a bulk begins; 0: it ends
 * @return 0, ENOENT when the process is not on a host
 */
VSHOST_API int vshost_bulk(int on);

#ifdef __cplusplus
}
#endif
#endif
