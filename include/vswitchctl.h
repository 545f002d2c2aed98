/**
 * @file vswitchctl.h
 * Control of the virtual switches of a hypervisor host.
 *
 * Operations whose names begin with VSDVS_ keep switches, ports and their policies in the host's
 * configuration store; those that begin with VSZOR_ ask the kernel's switch driver for the state of running
 * switches, or change it. What holds for all of them stands here once:
 *
 * 1. **Status.** An operation returns a VsStatus, unless it has nothing to report: STATUS_OK, which is 0, or
 *    0x0BAD0000 plus a small number. The first step that fails decides. A code comes from the library itself,
 *    from the store, unchanged, or from the errno of a failed driver request, translated as the list of codes
 *    shows. A row `(store)` stands for each code that the store may answer. It may be a code that the entry
 *    lists for another cause; if the store is the cause, the row `(store)` says what has changed. A row
 *    `(errno)` stands for the translation of the errno with which the device could not be opened or refused
 *    the request: a missing device is STATUS_NOT_FOUND; EINVAL and every errno that has no code of its own
 *    are STATUS_FAILURE; a request that fails with errno 0 counts as STATUS_OK.
 * 2. **Null pointers.** A pointer is required unless its entry says "may be null". A required pointer that is
 *    null gives STATUS_BAD_PARAM before anything is resolved, read, sent or written. These are passed on
 *    untested: the arguments of DVPortExist(), VSDVS_FreeMemory() and VSZOR_FreeMemory(), the header of
 *    ZORIoctl(), and the data of the three generic setters (VSDVS_SetPortProp()). The `data` of a
 *    PropValueBuffer is tested last, where bytes would be copied to it.
 * 3. **Outputs.** Outputs are written last and on STATUS_OK only, unless an entry says otherwise: "untouched"
 *    means as the caller left it, "null" that the pointer is set to null, "cleared" that all bytes are zero.
 *    A driver that fails a request may already have written to the caller's buffer.
 * 4. **Ownership.** What a caller passes in stays the caller's, and is copied before the call returns. A
 *    buffer handed out through a pointer belongs to the caller: release one from a VSDVS_ operation with
 *    VSDVS_FreeMemory() and one from a VSZOR_ operation with VSZOR_FreeMemory(). The two are not
 *    interchangeable. A call that fails hands out nothing to release.
 * 5. **Booleans.** A Boolean is one byte: only the low byte of an argument counts, and any nonzero value is
 *    true; an output is 1 or 0.
 * 6. **Names.** A name is a text that ends with a NUL. A switch has three: its *alias*, by which callers know
 *    it; its *switch id*, at most 63 characters, by which the store keeps it; and its *portset name*, at most
 *    127 characters, by which the kernel and the system shell know the running switch. An operation that
 *    takes an alias looks it up in the store's cache (convention 13): an unknown alias is STATUS_NOT_FOUND,
 *    and where the switch id is needed a switch of another class than "vswitch" is STATUS_BAD_PARAM. A switch
 *    id given by the caller goes to the store as it is. Port ids and property keys go to the store whole; in
 *    driver requests a portset name is cut to 127 characters, a port id to 47, an uplink name or a mirror
 *    session id to 31. A port id in an uplink list has at most 47 characters.
 * 7. **Records.** Records are packed, without gaps, and integers are in the host's byte order. A text is
 *    stored with its NUL counted in its length. A stored value whose length does not fit its record is
 *    STATUS_FAILURE. Fields to which this header gives no meaning are stored and handed back byte for byte.
 * 8. **Counts and sizes.** Lengths have 32 bits. Three are computed modulo 2^32: the private VLAN map (8 *
 *    count), the logical-switch teaming table (4 + 2748 * count) and the driver's lists. The library reads
 *    and writes nothing beyond the length that results, but a caller must keep its own counts low enough that
 *    the size fits, and must not rely on a `count` whose size does not fit. Any other size that does not fit
 *    is STATUS_NO_MEMORY. A list that a caller passes in must hold as many entries as its counts say: the
 *    library can't see where the caller's memory ends.
 * 9. **Driver lists.** A list of the driver takes two requests: one for its header, one for header and
 *    entries. An empty list takes one, and still yields a buffer to release. The second answer is handed on
 *    as it is and its count not compared with the first: when a list grows in between, the driver must write
 *    no more than the buffer holds, and report no more entries than it wrote.
 * 10. **Absent properties.** Each entry says what an absent property means: a default and STATUS_OK, or
 *     STATUS_NOT_FOUND. Clearing an absent property is STATUS_OK for mirror lists, the VLAN policy, the extra
 *     Ethernet filter, the teaming policies, the teaming override, logical-switch teaming and the uplink
 *     lists; it is STATUS_NOT_FOUND for the generic operations, the private VLAN map, MAC learning and
 *     learn-static.
 * 11. **Names in shell commands.** Switches are created and destroyed, and MTUs read and set, by commands of
 *     the system shell. A name made only of ASCII letters, digits and `. _ - : @ + = , %` goes into a command
 *     as it is; any other is put in single quotes, inner quotes escaped, so that the shell sees one plain
 *     word. A name that is empty, "." or "..", that begins with "-" or contains "/", and a quoted command
 *     longer than 255 characters give STATUS_FAILURE, and no command runs. A plain command is cut to 255
 *     characters.
 * 12. **Threads.** Every operation may be called from any thread at any time: the library starts none, takes
 *     no lock and shares nothing between calls; the store decides how far it supports several threads.
 *     Operations that read, change and write back, or that take several steps, are not atomic: callers
 *     serialize changes to one switch, and to one port. These operations are creation and destruction, the
 *     uplink operations, VSDVS_AppendDVMirrorSessions(), VSDVS_RemoveDVMirrorSession(),
 *     VSDVS_SetPortVLANPolicy(), VSDVS_ClearPortVLANPolicy(), VSDVS_ConfigureSinkPort(),
 *     VSDVS_SetPortMACLearning() and VSDVS_SetMTU(). Call LibraryInit() only while no other operation runs.
 * 13. **State.** The library keeps nothing between calls: no descriptor, no buffer, no setting. It reads no
 *     file and no environment, and prints nothing. A driver request is one open, one ioctl, one close.
 *     Aliases and portset names come from the store's cache in the process, which LibraryInit() fills when
 *     the library is loaded; the store decides whether the cache follows later changes.
 */
#ifndef VSWITCHCTL_H
#define VSWITCHCTL_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VSWITCHCTL_API __attribute__((visibility("default"))) /**< marks an exported operation */
#define VSWITCHCTL_PACKED __attribute__((packed))             /**< a record without gaps */

/* ==== Status codes ===================================================================================== */

/** Result of an operation: 0 or a code of 0x0BAD0000 plus a small number (convention 1). */
typedef uint32_t VsStatus;

#define STATUS_OK 0u               /**< the operation succeeded */
#define STATUS_FAILURE 0x0BAD0001u /**< EINVAL, an unlisted errno, a failed command or a malformed value */
#define STATUS_WOULD_BLOCK 0x0BAD0002u    /**< EAGAIN: try again later */
#define STATUS_NOT_FOUND 0x0BAD0003u      /**< ENOENT; no switch has the alias; no such property or entry */
#define STATUS_BUSY 0x0BAD0004u           /**< EBUSY: device or resource busy */
#define STATUS_EXISTS 0x0BAD0005u         /**< EEXIST; an entry to be added is there already */
#define STATUS_TOO_LARGE 0x0BAD0006u      /**< EFBIG: too large */
#define STATUS_BAD_PARAM 0x0BAD0007u      /**< no errno; null pointer, bad value, wrong class */
#define STATUS_IO_ERROR 0x0BAD0008u       /**< EIO: input or output error */
#define STATUS_NAME_TOO_LONG 0x0BAD000Du  /**< ENAMETOOLONG: name too long */
#define STATUS_BAD_DESCRIPTOR 0x0BAD000Eu /**< EBADF: bad file descriptor */
#define STATUS_NO_DEVICE 0x0BAD000Fu      /**< ENODEV: no such device */
#define STATUS_NO_DEVICE_OR_ADDRESS 0x0BAD0011u   /**< ENXIO: no such device or address */
#define STATUS_BAD_ADDRESS 0x0BAD0013u            /**< EFAULT: bad address */
#define STATUS_NO_MEMORY 0x0BAD0014u              /**< ENOMEM; no memory; a caller's buffer is too small */
#define STATUS_TOO_MANY_OPEN_FILES 0x0BAD0018u    /**< EMFILE: the process has too many open files */
#define STATUS_FILE_TABLE_FULL 0x0BAD0019u        /**< ENFILE: the host has too many open files */
#define STATUS_NO_SPACE 0x0BAD001Au               /**< ENOSPC: no space left */
#define STATUS_NOT_IMPLEMENTED 0x0BAD0020u        /**< ENOSYS: function not implemented */
#define STATUS_TIMED_OUT 0x0BAD0021u              /**< ETIMEDOUT: timed out */
#define STATUS_READ_ONLY 0x0BAD0022u              /**< EROFS: read-only file system */
#define STATUS_ADDRESS_IN_USE 0x0BAD0024u         /**< EADDRINUSE: address already in use */
#define STATUS_NOT_CONNECTED 0x0BAD002Eu          /**< ENOTCONN: not connected */
#define STATUS_INTERRUPTED 0x0BAD0032u            /**< EINTR: interrupted by a signal */
#define STATUS_CANCELED 0x0BAD0038u               /**< ECANCELED: operation canceled */
#define STATUS_NOT_SUPPORTED 0x0BAD003Cu          /**< EOPNOTSUPP: operation not supported */
#define STATUS_NETWORK_DOWN 0x0BAD0047u           /**< ENETDOWN: network is down */
#define STATUS_NETWORK_UNREACHABLE 0x0BAD0048u    /**< ENETUNREACH: network unreachable */
#define STATUS_NETWORK_RESET 0x0BAD0049u          /**< ENETRESET: connection dropped by the network */
#define STATUS_CONNECTION_ABORTED 0x0BAD004Au     /**< ECONNABORTED: connection aborted */
#define STATUS_CONNECTION_RESET 0x0BAD004Bu       /**< ECONNRESET: connection reset by the peer */
#define STATUS_SHUT_DOWN 0x0BAD004Du              /**< ESHUTDOWN: endpoint shut down */
#define STATUS_TOO_MANY_REFERENCES 0x0BAD004Eu    /**< ETOOMANYREFS: too many references */
#define STATUS_CONNECTION_REFUSED 0x0BAD004Fu     /**< ECONNREFUSED: connection refused */
#define STATUS_HOST_DOWN 0x0BAD0050u              /**< EHOSTDOWN: host is down */
#define STATUS_HOST_UNREACHABLE 0x0BAD0051u       /**< EHOSTUNREACH: host unreachable */
#define STATUS_BROKEN_PIPE 0x0BAD0053u            /**< EPIPE: broken pipe */
#define STATUS_NOT_A_DIRECTORY 0x0BAD0054u        /**< ENOTDIR: not a directory */
#define STATUS_IS_A_DIRECTORY 0x0BAD0055u         /**< EISDIR: is a directory */
#define STATUS_NOT_EMPTY 0x0BAD0056u              /**< ENOTEMPTY: directory not empty */
#define STATUS_PERMISSION_DENIED 0x0BAD005Au      /**< EACCES: permission denied */
#define STATUS_NOT_PERMITTED 0x0BAD005Bu          /**< EPERM: operation not permitted */
#define STATUS_OUT_OF_RANGE 0x0BAD005Du           /**< ERANGE: result out of range */
#define STATUS_NO_CHILD 0x0BAD0061u               /**< ECHILD: no child process */
#define STATUS_NO_PROCESS 0x0BAD0062u             /**< ESRCH: no such process */
#define STATUS_LINK_LOOP 0x0BAD0063u              /**< ELOOP: too many symbolic links */
#define STATUS_CROSS_DEVICE 0x0BAD0064u           /**< EXDEV: link across devices */
#define STATUS_NOT_A_SOCKET 0x0BAD0065u           /**< ENOTSOCK: not a socket */
#define STATUS_ILLEGAL_SEEK 0x0BAD0066u           /**< ESPIPE: illegal seek */
#define STATUS_FAMILY_NOT_SUPPORTED 0x0BAD0067u   /**< EAFNOSUPPORT: address family not supported */
#define STATUS_ALREADY_CONNECTED 0x0BAD0068u      /**< EISCONN: already connected */
#define STATUS_BAD_DEVICE_COMMAND 0x0BAD0086u     /**< ENOTTY: not a command of this device */
#define STATUS_IN_PROGRESS 0x0BAD0088u            /**< EINPROGRESS: operation in progress */
#define STATUS_BAD_EXECUTABLE 0x0BAD009Bu         /**< ENOEXEC: not an executable */
#define STATUS_TOO_MANY_USERS 0x0BAD00A7u         /**< EUSERS: too many users */
#define STATUS_DEADLOCK 0x0BAD00A9u               /**< EDEADLK: deadlock avoided */
#define STATUS_ARGUMENTS_TOO_LONG 0x0BAD00B4u     /**< E2BIG: argument list too long */
#define STATUS_ALREADY_IN_PROGRESS 0x0BAD00DAu    /**< EALREADY: operation already in progress */
#define STATUS_NO_LOCKS 0x0BAD00E7u               /**< ENOLCK: no locks available */
#define STATUS_ADDRESS_NOT_AVAILABLE 0x0BAD00FCu  /**< EADDRNOTAVAIL: address not available */
#define STATUS_DESTINATION_REQUIRED 0x0BAD00FDu   /**< EDESTADDRREQ: destination address required */
#define STATUS_PROTOCOL_NOT_SUPPORTED 0x0BAD0104u /**< EPROTONOSUPPORT: protocol not supported */
#define STATUS_FILE_BUSY 0x0BAD010Du              /**< ETXTBSY: file in use as a program */
#define STATUS_VALUE_OVERFLOW 0x0BAD0113u         /**< EOVERFLOW: value too large for its type */
#define STATUS_NO_BUFFER_SPACE 0x0BAD0125u        /**< ENOBUFS: no buffer space */
#define STATUS_MESSAGE_TOO_LONG 0x0BAD0129u       /**< EMSGSIZE: message too long */
#define STATUS_WRONG_PROTOCOL_TYPE 0x0BAD0144u    /**< EPROTOTYPE: wrong protocol for the socket */
#define STATUS_STALE 0x0BAD0147u                  /**< ESTALE: stale file handle */

/* ==== Start-up, release, hooks ========================================================================= */

/**
 * Fills the store's cache in this process: empties it, fetches the configuration from the store and loads it.
 * Runs by itself when the library is loaded; a later call reloads the cache, and with it what is known of
 * aliases and portset names.
 *
 * Reports nothing. When the store can't empty the cache, the cache stays as the store left it, with what it
 * held before; when the store can't yield the configuration, the cache stays empty and every alias is
 * STATUS_NOT_FOUND. Reloading invalidates data that other threads may be reading from the cache: call it only
 * while no other operation runs.
 */
VSWITCHCTL_API void LibraryInit(void);

/**
 * Releases a buffer that a VSDVS_ operation handed out, by giving it back to the store.
 *
 * @param[in]  buffer  a buffer from a VSDVS_ operation, passed on untested (convention 2); not one from a
 *                     VSZOR_ operation
 */
VSWITCHCTL_API void VSDVS_FreeMemory(void *buffer);

/**
 * Releases a buffer that a VSZOR_ operation handed out, with `free`.
 *
 * @param[in]  buffer  a buffer from a VSZOR_ operation, or null, which does nothing; not one from a VSDVS_
 *                     operation
 */
VSWITCHCTL_API void VSZOR_FreeMemory(void *buffer);

#ifndef VSWITCHCTL_NO_HOOKS
/**
 * Does nothing with any arguments; exported for the programs that expect it. A program with its own function
 * of this name defines VSWITCHCTL_NO_HOOKS before it includes this header.
 *
 * @param[in]  format  not read; may be null. No further argument is read either.
 */
VSWITCHCTL_API void Log(const char *format, ...);

/**
 * Does nothing with any arguments; see Log().
 *
 * @param[in]  format  not read; may be null. No further argument is read either.
 */
VSWITCHCTL_API void Warning(const char *format, ...);

/**
 * Does nothing with any arguments, and returns; see Log().
 *
 * @param[in]  format  not read; may be null. No further argument is read either.
 */
VSWITCHCTL_API void Panic(const char *format, ...);

#endif

/* ==== Switch identity ================================================================================== */

#define SWITCH_ID_SIZE 64     /**< bytes of a buffer for a switch id, NUL included */
#define SWITCH_ALIAS_SIZE 128 /**< bytes of a buffer for an alias, NUL included */
#define PORTSET_NAME_SIZE 128 /**< bytes of a buffer for a portset name, NUL included */
#define DV_PORT_ID_SIZE 48    /**< bytes of a fixed field for a port id, NUL included */

/**
 * Finds the switch id of a switch, as the store's cache has it.
 *
 * @param[in]  alias        name of the switch
 * @param[out] switchIdOut  SWITCH_ID_SIZE (64) bytes, the caller's: the id, with a NUL in the last byte at
 *                          the latest. Untouched on failure.
 * @retval STATUS_OK         the id is in switchIdOut
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 */
VSWITCHCTL_API VsStatus DVSAliasToSwitchId(const char *alias, char *switchIdOut);

/**
 * Finds the kernel name of a switch, as the store's cache has it: its host property
 * `com.talpex.common.host.portset`, else its alias (`com.talpex.common.alias`), else its switch id. The
 * switch may be of any class.
 *
 * @param[in]  alias       name of the switch
 * @param[out] portsetOut  PORTSET_NAME_SIZE (128) bytes, the caller's: at most 127 characters of the name,
 *                         then zeros. Untouched on failure.
 * @retval STATUS_OK         the name is in portsetOut
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  a required pointer is null
 */
VSWITCHCTL_API VsStatus DVSAliasToPortsetName(const char *alias, char *portsetOut);

/**
 * Finds the alias of the switch to which a kernel name belongs. A switch matches when its stored portset name
 * (`com.talpex.common.host.portset`) is equal to the name or is the beginning of it; of several that match,
 * the first that the store visits is taken. A matching switch without an alias yields the given name.
 *
 * @param[in]  portsetName  kernel name to look for; not empty
 * @param[out] aliasOut     SWITCH_ALIAS_SIZE (128) bytes, the caller's: at most 127 characters of the alias,
 *                          then zeros; all zero when no switch matches. Untouched on failure.
 * @retval STATUS_OK         the alias is in aliasOut, or no switch matches and aliasOut is all zero
 * @retval STATUS_BAD_PARAM  a required pointer is null, or portsetName is empty
 */
VSWITCHCTL_API VsStatus DVSPortsetNameToAlias(const char *portsetName, char *aliasOut);

/**
 * Finds the alias of the switch to which a kernel name belongs, exactly as DVSPortsetNameToAlias() does.
 *
 * @param[in]  portsetName  kernel name to look for; not empty
 * @param[out] aliasOut     SWITCH_ALIAS_SIZE (128) bytes, the caller's: at most 127 characters of the alias,
 *                          then zeros; all zero when no switch matches. Untouched on failure.
 * @retval STATUS_OK         the alias is in aliasOut, or no switch matches and aliasOut is all zero
 * @retval STATUS_BAD_PARAM  a required pointer is null, or portsetName is empty
 */
VSWITCHCTL_API VsStatus VSDVS_GetAliasFromPortset(const char *portsetName, char *aliasOut);

/**
 * Tells whether the store's cache holds a port. Both arguments go to the store untested (convention 2).
 *
 * @param[in]  switchId  id of the switch, at most 63 characters
 * @param[in]  dvPortId  id of the port
 * @retval 1  the switch has the port
 * @retval 0  the switch does not have the port, or does not exist
 */
VSWITCHCTL_API uint8_t DVPortExist(const char *switchId, const char *dvPortId);

/* ==== Properties by key ================================================================================ */

/** A caller's buffer for the value of a property; 12 bytes, without a gap before the pointer. */
typedef struct VSWITCHCTL_PACKED PropValueBuffer {
    int32_t length; /**< offset 0: size of `data` in bytes, or 0 to ask for the value's size */
    void *data;     /**< offset 4: the caller's buffer; may be null where no bytes are copied to it */
} PropValueBuffer;

/**
 * Reads the value of any property of a port by its key. Ask for the value's size with a length of 0, then
 * call again with a buffer of that size.
 *
 * @param[in]     alias     name of the switch; not used, and may be null, when useAlias is 0
 * @param[in]     dvPortId  id of the port
 * @param[in]     key       key of the property, such as `com.talpex.common.port.block`
 * @param[in,out] value     the caller's descriptor, 12 bytes. With `length` 0, `length` becomes the value's
 *                          size in bytes and `data`, which may be null, is not used. With a `length` that
 *                          suffices, the value is copied to `data`, which may be null for an empty value;
 *                          `length` and the bytes behind the value stay as they were. Descriptor and data
 *                          are untouched on failure.
 * @param[in]     dvsId     switch id, at most 63 characters; not used, and may be null, when useAlias is 1
 * @param[in]     useAlias  Boolean: 1 to name the switch by alias, 0 by dvsId
 * @retval STATUS_OK         the size is in `value->length`, or the value in `value->data`
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the port or the property is absent
 * @retval STATUS_BAD_PARAM  a required pointer is null, dvsId has more than 63 characters, the switch named
 *                           by alias is not of class "vswitch", or `data` is null and the value, which is not
 *                           empty, was to be copied
 * @retval STATUS_NO_MEMORY  `length` is negative, or smaller than the value
 * @retval (store)           any other status of the store (convention 1)
 *
 * @par Example
 * @code
 * PropValueBuffer value = {0, NULL};
 * VsStatus status = VSDVS_GetPortProp(alias, dvPortId, key, &value, NULL, 1);
 * if (status == STATUS_OK && (value.data = malloc((size_t)value.length + 1)) != NULL)
 *     status = VSDVS_GetPortProp(alias, dvPortId, key, &value, NULL, 1);
 * @endcode
 */
VSWITCHCTL_API VsStatus VSDVS_GetPortProp(const char *alias, const char *dvPortId, const char *key,
                                          PropValueBuffer *value, const char *dvsId, uint8_t useAlias);

/**
 * Reads the value of any property of this host's view of a switch by its key; sizes as in
 * VSDVS_GetPortProp().
 *
 * @param[in]     alias     name of the switch; not used, and may be null, when useAlias is 0
 * @param[in]     key       key of the property, such as `com.talpex.common.host.portset`
 * @param[in,out] value     the caller's descriptor, 12 bytes, used as in VSDVS_GetPortProp(). Descriptor and
 *                          data are untouched on failure.
 * @param[in]     dvsId     switch id, at most 63 characters; not used, and may be null, when useAlias is 1
 * @param[in]     useAlias  Boolean: 1 to name the switch by alias, 0 by dvsId
 * @retval STATUS_OK         the size is in `value->length`, or the value in `value->data`
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the switch or the property is absent
 * @retval STATUS_BAD_PARAM  a required pointer is null, dvsId has more than 63 characters, the switch named
 *                           by alias is not of class "vswitch", or `data` is null and the value, which is not
 *                           empty, was to be copied
 * @retval STATUS_NO_MEMORY  `length` is negative, or smaller than the value
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetHostProp(const char *alias, const char *key, PropValueBuffer *value,
                                          const char *dvsId, uint8_t useAlias);

/**
 * Reads the value of any global property of a switch by its key; sizes as in VSDVS_GetPortProp().
 *
 * @param[in]     alias     name of the switch; not used, and may be null, when useAlias is 0
 * @param[in]     key       key of the property, such as `com.talpex.common.version`
 * @param[in,out] value     the caller's descriptor, 12 bytes, used as in VSDVS_GetPortProp(). Descriptor and
 *                          data are untouched on failure.
 * @param[in]     dvsId     switch id, at most 63 characters; not used, and may be null, when useAlias is 1
 * @param[in]     useAlias  Boolean: 1 to name the switch by alias, 0 by dvsId
 * @retval STATUS_OK         the size is in `value->length`, or the value in `value->data`
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the switch or the property is absent
 * @retval STATUS_BAD_PARAM  a required pointer is null, dvsId has more than 63 characters, the switch named
 *                           by alias is not of class "vswitch", or `data` is null and the value, which is not
 *                           empty, was to be copied
 * @retval STATUS_NO_MEMORY  `length` is negative, or smaller than the value
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetGlobProp(const char *alias, const char *key, PropValueBuffer *value,
                                          const char *dvsId, uint8_t useAlias);

/**
 * Writes any property of a port by its key. Every value written so has store flags 0x10, also under a key
 * that its own operation writes with other flags (0x08 for `com.talpex.vswitch.port.vlan`, for example).
 *
 * @param[in]  alias     name of the switch; not used, and may be null, when useAlias is 0
 * @param[in]  dvPortId  id of the port
 * @param[in]  key       key of the property
 * @param[in]  data      `length` bytes, passed to the store untested (convention 2); may be null when length
 *                       is 0
 * @param[in]  length    size of the value in bytes
 * @param[in]  dvsId     switch id, at most 63 characters; not used, and may be null, when useAlias is 1
 * @param[in]  useAlias  Boolean: 1 to name the switch by alias, 0 by dvsId
 * @retval STATUS_OK         the value is stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such port
 * @retval STATUS_BAD_PARAM  a required pointer is null, dvsId has more than 63 characters, or the switch
 *                           named by alias is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_SetPortProp(const char *alias, const char *dvPortId, const char *key,
                                          const void *data, uint32_t length, const char *dvsId,
                                          uint8_t useAlias);

/**
 * Writes any property of this host's view of a switch by its key, with store flags 0x10.
 *
 * @param[in]  alias     name of the switch; not used, and may be null, when useAlias is 0
 * @param[in]  key       key of the property
 * @param[in]  data      `length` bytes, passed to the store untested (convention 2); may be null when length
 *                       is 0
 * @param[in]  length    size of the value in bytes
 * @param[in]  dvsId     switch id, at most 63 characters; not used, and may be null, when useAlias is 1
 * @param[in]  useAlias  Boolean: 1 to name the switch by alias, 0 by dvsId
 * @retval STATUS_OK         the value is stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such switch
 * @retval STATUS_BAD_PARAM  a required pointer is null, dvsId has more than 63 characters, or the switch
 *                           named by alias is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_SetHostProp(const char *alias, const char *key, const void *data,
                                          uint32_t length, const char *dvsId, uint8_t useAlias);

/**
 * Writes any global property of a switch by its key, with store flags 0x10.
 *
 * @param[in]  alias     name of the switch; not used, and may be null, when useAlias is 0
 * @param[in]  key       key of the property
 * @param[in]  data      `length` bytes, passed to the store untested (convention 2); may be null when length
 *                       is 0
 * @param[in]  length    size of the value in bytes
 * @param[in]  dvsId     switch id, at most 63 characters; not used, and may be null, when useAlias is 1
 * @param[in]  useAlias  Boolean: 1 to name the switch by alias, 0 by dvsId
 * @retval STATUS_OK         the value is stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such switch
 * @retval STATUS_BAD_PARAM  a required pointer is null, dvsId has more than 63 characters, or the switch
 *                           named by alias is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_SetGlobProp(const char *alias, const char *key, const void *data,
                                          uint32_t length, const char *dvsId, uint8_t useAlias);

/**
 * Removes any property of a port by its key.
 *
 * @param[in]  alias     name of the switch; not used, and may be null, when useAlias is 0
 * @param[in]  dvPortId  id of the port
 * @param[in]  key       key of the property
 * @param[in]  dvsId     switch id, at most 63 characters; not used, and may be null, when useAlias is 1
 * @param[in]  useAlias  Boolean: 1 to name the switch by alias, 0 by dvsId
 * @retval STATUS_OK         the property is removed
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the port or the property is absent
 * @retval STATUS_BAD_PARAM  a required pointer is null, dvsId has more than 63 characters, or the switch
 *                           named by alias is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_ClearPortProp(const char *alias, const char *dvPortId, const char *key,
                                            const char *dvsId, uint8_t useAlias);

/**
 * Removes any property of this host's view of a switch by its key.
 *
 * @param[in]  alias     name of the switch; not used, and may be null, when useAlias is 0
 * @param[in]  key       key of the property
 * @param[in]  dvsId     switch id, at most 63 characters; not used, and may be null, when useAlias is 1
 * @param[in]  useAlias  Boolean: 1 to name the switch by alias, 0 by dvsId
 * @retval STATUS_OK         the property is removed
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the switch or the property is absent
 * @retval STATUS_BAD_PARAM  a required pointer is null, dvsId has more than 63 characters, or the switch
 *                           named by alias is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_ClearHostProp(const char *alias, const char *key, const char *dvsId,
                                            uint8_t useAlias);

/**
 * Removes any global property of a switch by its key.
 *
 * @param[in]  alias     name of the switch; not used, and may be null, when useAlias is 0
 * @param[in]  key       key of the property
 * @param[in]  dvsId     switch id, at most 63 characters; not used, and may be null, when useAlias is 1
 * @param[in]  useAlias  Boolean: 1 to name the switch by alias, 0 by dvsId
 * @retval STATUS_OK         the property is removed
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the switch or the property is absent
 * @retval STATUS_BAD_PARAM  a required pointer is null, dvsId has more than 63 characters, or the switch
 *                           named by alias is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_ClearGlobProp(const char *alias, const char *key, const char *dvsId,
                                            uint8_t useAlias);

/* ==== Switches ========================================================================================= */

/**
 * Creates a switch: its portset in the kernel, its record and identity in the store, its association with
 * this host, then its uplink ports (as SetNumSwitchUplinkPortsByUUID() does) and its ordinary ports "port0",
 * "port1" and so on. When a step fails, the earlier steps are undone, last first, and the results of the undo
 * are ignored.
 *
 * These commands create and destroy the portset (convention 11). `PORTSET` is its kernel name, and `PORTS`
 * its number of ports, followed by a line feed inside the double quotes:
 *
 *     /bin/tybel -e set /net/create PORTSET "PORTS\n" vswitch 2>/dev/null
 *     /bin/tybel -e set /net/portsets/PORTSET/destroy destroy 2> /dev/null
 *
 * Written to the store, with flags 0x10: the global properties `com.talpex.common.alias`,
 * `com.talpex.common.version` (4 bytes) and `com.talpex.common.opaqueDvs` ("true" or "false"), and the host
 * property `com.talpex.common.host.portset`. Each ordinary port has connect id 1 and the initial properties
 * of VSDVS_AddDVPort().
 *
 * @param[in]  alias        name of the new switch
 * @param[in]  switchId     id for the new switch, at most 63 characters, not checked; may be null: the id is
 *                          then the first 15 characters of the alias and zero bytes, 16 in all, written as
 *                          hexadecimal pairs ("6c 61 62 00 00 00 00 00-00 00 00 00 00 00 00 00" for "lab"),
 *                          so that aliases with the same first 15 characters get the same id
 * @param[in]  portsetName  kernel name for the new switch; may be null: the alias is taken
 * @param[in]  version      version of the switch, as the store keeps it
 * @param[in]  opaque       Boolean: whether the switch is opaque
 * @param[in]  maxPorts     number of ports of the portset; 0 means 128
 * @param[in]  numUplinks   number of uplink ports; 0 creates none
 * @param[in]  numPorts     number of ordinary ports; 0 creates none
 * @retval STATUS_OK         the switch runs and is stored
 * @retval STATUS_BAD_PARAM  a required pointer is null
 * @retval STATUS_FAILURE    the create command failed, or the portset name cannot be used in the create or
 *                           the destroy command; nothing was stored
 * @retval STATUS_NO_MEMORY  the uplink lists could not be allocated or are too large (convention 8); all
 *                           steps are undone
 * @retval (store)           any status of the store (convention 1); all steps are undone
 *
 * @par Example
 * @code
 * // A switch with two uplinks and eight ports, its id and portset named after its alias.
 * VsStatus status = VSDVS_CreateVSwitch("lab", NULL, NULL, 1, 0, 64, 2, 8);
 * @endcode
 */
VSWITCHCTL_API VsStatus VSDVS_CreateVSwitch(const char *alias, const char *switchId, const char *portsetName,
                                            uint32_t version, uint8_t opaque, uint32_t maxPorts,
                                            uint32_t numUplinks, uint32_t numPorts);

/**
 * Destroys a switch: ends its association with this host, removes its record and all its ports from the
 * store, then destroys its portset. Stops at the first failure and undoes nothing. A switch whose portset
 * name cannot be used in the command is not changed. The command is (convention 11)
 *
 *     /bin/tybel -e set /net/portsets/PORTSET/destroy destroy 2> /dev/null
 *
 * @param[in]  alias  name of the switch
 * @retval STATUS_OK         the switch is gone
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such switch
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    the portset name cannot be used in the destroy command: nothing has changed. Or
 *                           the command failed: the store no longer has the switch. Or the store returned
 *                           this status: see (store).
 * @retval (store)           any other status of the store (convention 1): when the association could not be
 *                           ended, nothing has changed; when the record could not be removed, the switch is
 *                           stored without its association, and its portset keeps running
 */
VSWITCHCTL_API VsStatus VSDVS_DestroyVSwitch(const char *alias);

/* ==== Distributed ports ================================================================================ */

/**
 * Adds an ordinary port to a switch, with all its initial properties at once.
 *
 * They are `com.talpex.common.port.alias` (the port id), `com.talpex.common.port.connectid` (4 bytes),
 * `com.talpex.common.port.block` ("false"), `com.talpex.common.port.statistics` (128 zero bytes, store flags
 * 0x20) and `com.talpex.vswitch.port.vlan` (8 zero bytes, no VLAN; store flags 0x08); the others have store
 * flags 0x10.
 *
 * @param[in]  alias      name of the switch
 * @param[in]  dvPortId   id for the new port, passed to the store whole; at most 47 characters where the
 *                        driver is to find it
 * @param[in]  connectId  connect id of the port, stored as it is
 * @retval STATUS_OK         the port exists
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such switch
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1), which includes its status for a
 *                           port id that exists already; no port was added
 */
VSWITCHCTL_API VsStatus VSDVS_AddDVPort(const char *alias, const char *dvPortId, uint32_t connectId);

/**
 * Adds an ordinary port as VSDVS_AddDVPort() does, with connect id 1, then stores its external id
 * (`com.talpex.port.extraConfig.vnic.external.id`, flags 0x10).
 *
 * @param[in]  alias       name of the switch
 * @param[in]  dvPortId    id for the new port, passed to the store whole; at most 47 characters where the
 *                         driver is to find it
 * @param[in]  externalId  external id of the port, any length
 * @retval STATUS_OK         the port exists and has its external id
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such switch
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1). When only the external id could not
 *                           be stored, the port exists without it.
 */
VSWITCHCTL_API VsStatus VSDVS_AddOpaqueDVPort(const char *alias, const char *dvPortId,
                                              const char *externalId);

/**
 * Removes a port with all its properties. Uplink lists and mirror sessions that name the port stay as they
 * are; remove an uplink port with VSDVS_RemoveSwitchUplinkPort().
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @retval STATUS_OK         the port is gone
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such port
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_RemoveDVPort(const char *alias, const char *dvPortId);

/**
 * Finds the number by which the kernel's driver knows a port: the 32-bit word at offset 16 of its status
 * record (`com.talpex.common.port.volatile.status`).
 *
 * @param[in]  switchId   id of the switch, at most 63 characters
 * @param[in]  dvPortId   id of the port
 * @param[out] portIdOut  the port's number. Untouched on failure.
 * @retval STATUS_OK         the number is in portIdOut
 * @retval STATUS_NOT_FOUND  the store has no such port, or the port has no status record
 * @retval STATUS_BAD_PARAM  a required pointer is null
 * @retval STATUS_FAILURE    the status record is shorter than 20 bytes
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_DvPortIDToPortIDFromDVSID(const char *switchId, const char *dvPortId,
                                                        uint32_t *portIdOut);

/**
 * Finds the number by which the kernel's driver knows a port, as VSDVS_DvPortIDToPortIDFromDVSID() does.
 *
 * @param[in]  alias      name of the switch
 * @param[in]  dvPortId   id of the port
 * @param[out] portIdOut  the port's number. Untouched on failure.
 * @retval STATUS_OK         the number is in portIdOut
 * @retval STATUS_NOT_FOUND  no switch has this alias, the store has no such port, or the port has no status
 *                           record
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    the status record is shorter than 20 bytes
 * @retval (store)           any other status of the store (convention 1)
 *
 * @par Example
 * @code
 * uint32_t portNumber;
 * uint8_t hint[UPLINK_HINT_SIZE];
 * VsStatus status = VSDVS_DvPortIDToPortID(alias, dvPortId, &portNumber);
 * if (status == STATUS_OK) status = VSZOR_PortGetTeamUplinkHint(portNumber, hint);
 * @endcode
 */
VSWITCHCTL_API VsStatus VSDVS_DvPortIDToPortID(const char *alias, const char *dvPortId, uint32_t *portIdOut);

/* ==== Uplink ports ===================================================================================== */

/** Name of an uplink; 81 bytes. */
typedef struct VSWITCHCTL_PACKED UplinkName {
    char text[81]; /**< offset 0: at most 80 characters and a NUL; without a NUL it equals no name */
} UplinkName;

/** Names of a switch's uplinks; 4 + 81 * count bytes. */
typedef struct VSWITCHCTL_PACKED UplinkNameList {
    uint32_t count; /**< offset 0: number of uplinks; that many UplinkName follow at offset 4 */
} UplinkNameList;

/** Port id of an uplink; 48 bytes. */
typedef struct VSWITCHCTL_PACKED UplinkPortId {
    char text[48]; /**< offset 0: at most 47 characters and a NUL; without a NUL it equals no name */
} UplinkPortId;

/** Port ids of a switch's uplinks on this host; 4 + 48 * count bytes. */
typedef struct VSWITCHCTL_PACKED UplinkPortIdList {
    uint32_t count; /**< offset 0: number of uplinks; that many UplinkPortId follow at offset 4 */
} UplinkPortIdList;

/**
 * Creates a number of uplink ports on a switch that has none, "uplink0", "uplink1" and so on, each with its
 * id as its name, and stores both uplink lists. Works as VSDVS_SetSwitchUplinkPorts() with these lists.
 *
 * @param[in]  switchId    id of the switch, at most 63 characters
 * @param[in]  numUplinks  number of uplink ports; 0 stores two empty lists
 * @retval STATUS_OK         the ports exist and both lists are stored
 * @retval STATUS_NOT_FOUND  the store has no such switch
 * @retval STATUS_BAD_PARAM  a required pointer is null
 * @retval STATUS_NO_MEMORY  the lists could not be allocated or are too large (convention 8); nothing has
 *                           changed
 * @retval (store)           any other status of the store (convention 1); the ports that this call created
 *                           are removed again
 */
VSWITCHCTL_API VsStatus SetNumSwitchUplinkPortsByUUID(const char *switchId, uint32_t numUplinks);

/**
 * Creates the uplink ports of a switch and stores its uplink lists: the names for the whole switch
 * (`com.talpex.common.uplinkPorts`) and the port ids for this host (`com.talpex.common.host.uplinkPorts`),
 * both with flags 0x10. Existing ports are not changed; existing lists are replaced.
 *
 * Each port gets connect id 1, its id as its alias, and a trunk of VLANs 1 to 4094; for the rest see
 * VSDVS_AddDVPort(). The lists are stored as they are: equal counts, a NUL in each field, and names equal to
 * the port ids are the caller's responsibility; without them, VSDVS_GetSwitchUplinkPorts() fails. When a step
 * fails, the ports created by this call are removed, last first; when the second list can't be stored, the
 * first one is cleared.
 *
 * @param[in]  alias  name of the switch
 * @param[in]  names  4 + 81 * `names->count` bytes (convention 8)
 * @param[in]  ids    4 + 48 * `ids->count` bytes (convention 8): the ports to create, in order
 * @retval STATUS_OK         the ports exist and both lists are stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such switch
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_NO_MEMORY  a list does not fit 32 bits (convention 8); the ports that this call created are
 *                           removed again
 * @retval (store)           any other status of the store (convention 1); the ports that this call created
 *                           are removed again
 */
VSWITCHCTL_API VsStatus VSDVS_SetSwitchUplinkPorts(const char *alias, const UplinkNameList *names,
                                                   const UplinkPortIdList *ids);

/**
 * Reads both uplink lists of a switch, with the names put in the order of the port ids: entry i of the names
 * is the alias (`com.talpex.common.port.alias`) of the port in entry i of the ids.
 *
 * @param[in]  alias  name of the switch
 * @param[out] names  4 + 81 * `count` bytes, the caller's: release with VSDVS_FreeMemory(). Untouched when a
 *                    test or the alias fails, or the store does not yield the names; null after any later
 *                    failure, a malformed list included.
 * @param[out] ids    4 + 48 * `count` bytes, the caller's: release with VSDVS_FreeMemory(). After a failure
 *                    as names.
 * @retval STATUS_OK         both lists are handed out; both counts are equal, and may be 0
 * @retval STATUS_NOT_FOUND  no switch has this alias, a list is absent, or a listed port or its alias is
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    a list's length does not fit its count, the counts differ, or a port's alias is
 *                           not among the names
 * @retval STATUS_NO_MEMORY  no memory to put the names in order
 * @retval (store)           any other status of the store (convention 1)
 *
 * @par Example
 * @code
 * UplinkNameList *names;
 * UplinkPortIdList *ids;
 * if (VSDVS_GetSwitchUplinkPorts(alias, &names, &ids) == STATUS_OK) {
 *     const UplinkName *name = (const UplinkName *)(names + 1);
 *     const UplinkPortId *id = (const UplinkPortId *)(ids + 1);
 *     for (uint32_t i = 0; i < ids->count; i++) printf("%s is port %s\n", name[i].text, id[i].text);
 *     VSDVS_FreeMemory(names);
 *     VSDVS_FreeMemory(ids);
 * }
 * @endcode
 */
VSWITCHCTL_API VsStatus VSDVS_GetSwitchUplinkPorts(const char *alias, UplinkNameList **names,
                                                   UplinkPortIdList **ids);

/**
 * Adds one uplink to a switch: creates the port and appends it to both uplink lists. On a switch without
 * lists, both begin with this uplink. Uplink lists that can't be read because a list or a listed port is
 * absent count as empty and are replaced: to keep them, repair them first with VSDVS_SetSwitchUplinkPorts().
 *
 * When a list can't be stored, the port is removed again, and the names are written back as they were (as an
 * empty list when they counted as empty).
 *
 * @param[in]  alias  name of the switch
 * @param[in]  name   name and port id of the new uplink, at most 47 characters
 * @retval STATUS_OK         the uplink exists and stands in both lists
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such switch
 * @retval STATUS_BAD_PARAM  a required pointer is null, the switch is not of class "vswitch", or the name has
 *                           more than 47 characters; nothing has changed
 * @retval STATUS_EXISTS     the port id is listed already, or the switch has an unlisted port of this id;
 *                           nothing has changed
 * @retval STATUS_FAILURE    the stored lists are malformed (see VSDVS_GetSwitchUplinkPorts()); nothing has
 *                           changed
 * @retval STATUS_NO_MEMORY  the longer lists could not be allocated or are too large (convention 8); nothing
 *                           has changed
 * @retval (store)           any other status of the store (convention 1); what this call changed is undone
 */
VSWITCHCTL_API VsStatus VSDVS_AddSwitchUplinkPort(const char *alias, const char *name);

/**
 * Removes one uplink of a switch: takes its name and its port id from the two uplink lists and removes the
 * port. A list that becomes empty is cleared. A port that is not in both lists stays as it is, and so do the
 * lists.
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the uplink's port
 * @retval STATUS_OK         the uplink is removed, or it was not listed and nothing has changed
 * @retval STATUS_NOT_FOUND  no switch has this alias, a list is absent, or a listed port, this port or its
 *                           alias is: nothing has changed. Or another program has cleared a list that this
 *                           call was to clear: the port is removed already; see (store).
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    the stored lists are malformed (see VSDVS_GetSwitchUplinkPorts()); nothing has
 *                           changed
 * @retval STATUS_NO_MEMORY  no memory to read the lists; nothing has changed
 * @retval (store)           any other status of the store (convention 1). Nothing is undone: when the port
 *                           could not be removed, nothing has changed; when a list could not be written or
 *                           cleared, the port is removed already.
 */
VSWITCHCTL_API VsStatus VSDVS_RemoveSwitchUplinkPort(const char *alias, const char *dvPortId);

/**
 * Removes both uplink lists of a switch. The uplink ports themselves stay on the switch. The store's status
 * for each of the two removals is ignored.
 *
 * @param[in]  alias  name of the switch
 * @retval STATUS_OK         the lists are removed, as far as the store allows it
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 */
VSWITCHCTL_API VsStatus VSDVS_ClearSwitchUplinkPorts(const char *alias);

/* ==== Multicast filter mode ============================================================================ */

#define MCAST_FILTER_LEGACY 0   /**< multicast filter mode: legacy filtering */
#define MCAST_FILTER_SNOOPING 1 /**< multicast filter mode: snooping */

/**
 * Reads the multicast filter mode of a switch (`com.talpex.vswitch.multicastFilter`). When none is stored,
 * the driver is asked for the mode in force, as by VSZOR_GetMcastFilterMode() (command 4103).
 *
 * @param[in]  alias  name of the switch
 * @param[out] mode   MCAST_FILTER_LEGACY (0) or MCAST_FILTER_SNOOPING (1), or what the driver answers.
 *                    Untouched by the library on failure; a driver that fails may have written to it
 *                    before.
 * @retval STATUS_OK         the mode is in `mode`
 * @retval STATUS_NOT_FOUND  no switch has this alias; or no mode is stored, and the driver's device is
 *                           missing or the driver answered ENOENT
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    the stored text is neither "legacyFiltering" nor "snooping"; or see (errno)
 * @retval (store)           any other status of the store (convention 1)
 * @retval (errno)           no mode is stored and the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetMcastFilterMode(const char *alias, uint32_t *mode);

/**
 * Stores the multicast filter mode of a switch as the text "legacyFiltering" or "snooping"
 * (`com.talpex.vswitch.multicastFilter`, flags 0x10). The driver is not told.
 *
 * @param[in]  alias  name of the switch
 * @param[in]  mode   MCAST_FILTER_LEGACY (0) or MCAST_FILTER_SNOOPING (1)
 * @retval STATUS_OK         the mode is stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such switch
 * @retval STATUS_BAD_PARAM  alias is null, the mode is neither 0 nor 1 (tested before the alias is looked
 *                           up), or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_SetMcastFilterMode(const char *alias, int32_t mode);

/* ==== Mirror sessions ================================================================================== */

#define MIRROR_LIST_MAGIC 0xFACEBEEFu /**< first word of a mirror list that the library creates */
#define MIRROR_LIST_VERSION 2u        /**< second word of a mirror list that the library creates */

/**
 * Header of a list of mirror sessions; 20 bytes. `sessionCount` MirrorSessionRecord follow at offset 20, then
 * `portEntryCount` MirrorPortEntry.
 */
typedef struct VSWITCHCTL_PACKED MirrorSessionList {
    uint32_t magic;          /**< offset 0: MIRROR_LIST_MAGIC in a list that the library creates */
    uint32_t version;        /**< offset 4: MIRROR_LIST_VERSION in a list that the library creates */
    uint32_t sessionCount;   /**< offset 8: number of sessions */
    uint32_t portEntryCount; /**< offset 12: number of port entries, over all sessions */
    uint32_t reserved;       /**< offset 16: 0 in a list that the library creates */
} MirrorSessionList;

/**
 * A mirror session; 232 bytes. It owns the `entryCountA` + `entryCountB` + `entryCountC` port entries of its
 * list from `firstPortEntry` on.
 */
typedef struct VSWITCHCTL_PACKED MirrorSessionRecord {
    char sessionId[32];      /**< offset 0: id, with a NUL when shorter than 32 bytes */
    uint8_t settings[184];   /**< offset 32: settings, stored as they are */
    uint32_t entryCountA;    /**< offset 216: first count of its port entries */
    uint32_t entryCountB;    /**< offset 220: second count */
    uint32_t entryCountC;    /**< offset 224: third count */
    uint32_t firstPortEntry; /**< offset 228: index of its first port entry in the list */
} MirrorSessionRecord;

/** A port entry of a mirror session; 52 bytes. */
typedef struct VSWITCHCTL_PACKED MirrorPortEntry {
    uint8_t bytes[52]; /**< offset 0: stored as it is */
} MirrorPortEntry;

/**
 * Reads a list of mirror sessions: that of a port (`com.talpex.vswitch.port.mirrorSessions`) or, without a
 * port id, that of this host's uplinks (`com.talpex.vswitch.uplinkMirrorSessions`). Neither magic nor
 * version, nor the place of the sessions' port entries, is checked.
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port; may be null or empty, for the list of this host's uplinks
 * @param[out] list      the caller's: release with VSDVS_FreeMemory(). At least 20 + 232 * `sessionCount` +
 *                       52 * `portEntryCount` bytes. Untouched on failure.
 * @retval STATUS_OK         the list is handed out
 * @retval STATUS_NOT_FOUND  the place has no list, or the store has no such port
 * @retval STATUS_BAD_PARAM  a required pointer is null
 * @retval STATUS_FAILURE    no switch has this alias, the switch is not of class "vswitch", or the stored
 *                           list is shorter than its header or its counts require
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetDVMirrorSessions(const char *alias, const char *dvPortId,
                                                  MirrorSessionList **list);

/**
 * Appends mirror sessions to the list of a port or of this host's uplinks; the first one makes the list. The
 * stored list, with flags 0x08, holds the old sessions, the new ones, the old port entries, then the new
 * ones; `firstPortEntry` of each new session is raised by the number of old entries. Magic, version and
 * reserved word are those of the stored list, or MIRROR_LIST_MAGIC, MIRROR_LIST_VERSION and 0.
 *
 * Each session owns the `entryCountA` + `entryCountB` + `entryCountC` port entries from its `firstPortEntry`
 * on. Give them in the order of the sessions, without overlaps: VSDVS_RemoveDVMirrorSession() relies on it.
 * For a session without port entries any `firstPortEntry` up to `portEntryCount` will do.
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port; may be null or empty, for the list of this host's uplinks
 * @param[in]  list      20 + 232 * `sessionCount` + 52 * `portEntryCount` bytes (convention 8); its magic,
 *                       version and reserved word don't matter
 * @retval STATUS_OK         the sessions are stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such port
 * @retval STATUS_BAD_PARAM  a required pointer is null; a session's `firstPortEntry` and counts together
 *                           exceed `portEntryCount`, or the counts of all sessions don't add up to it (both
 *                           tested before the alias is looked up); or the switch is not of class "vswitch"
 * @retval STATUS_EXISTS     a session id, compared over 32 bytes, is in the stored list; nothing has changed.
 *                           Ids are not compared within `list`.
 * @retval STATUS_FAILURE    the stored list is shorter than its header or its counts require; nothing has
 *                           changed
 * @retval STATUS_NO_MEMORY  the longer list could not be allocated or does not fit 32 bits; nothing has
 *                           changed
 * @retval (store)           any other status of the store (convention 1); nothing has changed
 *
 * @par Example
 * @code
 * struct {
 *     MirrorSessionList header;
 *     MirrorSessionRecord session;
 *     MirrorPortEntry entry;
 * } list = {{0, 0, 1, 1, 0}, {"capture", {0}, 1, 0, 0, 0}, {{0}}};
 * VsStatus status = VSDVS_AppendDVMirrorSessions(alias, "port0", &list.header);
 * @endcode
 */
VSWITCHCTL_API VsStatus VSDVS_AppendDVMirrorSessions(const char *alias, const char *dvPortId,
                                                     const MirrorSessionList *list);

/**
 * Removes the first mirror session with an id, and its port entries, from the list of a port or of this
 * host's uplinks. `firstPortEntry` of each session behind it is lowered by as many entries, but not below 0.
 * With the last session the property itself is removed.
 *
 * The sessions' port entries must follow the order of the sessions. Port entries that no session owns stay,
 * and a session without port entries may point anywhere.
 *
 * @param[in]  alias      name of the switch
 * @param[in]  dvPortId   id of the port; may be null or empty, for the list of this host's uplinks
 * @param[in]  sessionId  id of the session, compared over at most 32 bytes
 * @retval STATUS_OK         the session is removed
 * @retval STATUS_NOT_FOUND  no switch has this alias, the place has no list, or the list has no such session
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    the stored list is shorter than its header or its counts require, or, where other
 *                           sessions remain, sessions' port entries leave the list, overlap or are out of
 *                           order; nothing has changed
 * @retval (store)           any other status of the store (convention 1); nothing has changed
 */
VSWITCHCTL_API VsStatus VSDVS_RemoveDVMirrorSession(const char *alias, const char *dvPortId,
                                                    const char *sessionId);

/**
 * Removes the whole list of mirror sessions of a port or of this host's uplinks.
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port; may be null or empty, for the list of this host's uplinks
 * @retval STATUS_OK         the list is removed, or there was none
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_ClearDVMirrorSessions(const char *alias, const char *dvPortId);

/* ==== VLAN policies ==================================================================================== */

#define VLAN_FLAG_TRUNK 1u             /**< PortVLANRecord: the port is a trunk for the record's ranges */
#define VLAN_FLAG_OPTION 2u            /**< PortVLANRecord: optionFlag of VSDVS_SetPortVLANPolicy() */
#define VLAN_FLAG_PRIORITY 4u          /**< PortVLANRecord: the port has a priority */
#define VLAN_PRIORITY_NONE 0xFFFFFFFFu /**< priority of VSDVS_SetPortVLANPolicy() that means none */

/** A range of a VLAN trunk, both ends included; 4 bytes. */
typedef struct VSWITCHCTL_PACKED VLANRange {
    uint16_t first; /**< offset 0: first VLAN id */
    uint16_t last;  /**< offset 2: last VLAN id */
} VLANRange;

/** VLAN policy of a port; 8 + 4 * rangeCount bytes. */
typedef struct VSWITCHCTL_PACKED PortVLANRecord {
    uint16_t flags;      /**< offset 0: VLAN_FLAG_TRUNK, VLAN_FLAG_OPTION, VLAN_FLAG_PRIORITY */
    uint16_t vlanId;     /**< offset 2: VLAN id */
    uint16_t reserved;   /**< offset 4: written as 0 */
    uint16_t rangeCount; /**< offset 6: number of ranges; that many VLANRange follow at offset 8 */
} PortVLANRecord;

/** An entry of the private VLAN map; 8 bytes. */
typedef struct VSWITCHCTL_PACKED PVLANMapEntry {
    uint8_t bytes[8]; /**< offset 0: stored as it is */
} PVLANMapEntry;

/**
 * Reads the private VLAN map of a switch (`com.talpex.vswitch.pvlanMap`).
 *
 * @param[in]  alias    name of the switch
 * @param[out] entries  `count` PVLANMapEntry of 8 bytes, the caller's: release with VSDVS_FreeMemory(), also
 *                      when count is 0. Untouched on failure.
 * @param[out] count    number of entries. Untouched on failure.
 * @retval STATUS_OK         the map is handed out
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the switch has no map
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    the stored length is not a multiple of 8
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetPrivateVLANMap(const char *alias, PVLANMapEntry **entries, uint32_t *count);

/**
 * Replaces the private VLAN map of a switch (`com.talpex.vswitch.pvlanMap`, flags 0x08), or removes it. The
 * entries are not checked.
 *
 * @param[in]  alias    name of the switch
 * @param[in]  entries  `count` PVLANMapEntry of 8 bytes; may be null when count is 0
 * @param[in]  count    number of entries, below 2^29 (convention 8); 0 removes the map
 * @retval STATUS_OK         the map is stored, or removed
 * @retval STATUS_NOT_FOUND  no switch has this alias, the store has no such switch, or count is 0 and the
 *                           switch has no map
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_SetPrivateVLANMap(const char *alias, const PVLANMapEntry *entries,
                                                uint32_t count);

/**
 * Reads the VLAN policy of a port (`com.talpex.vswitch.port.vlan`) and its priority
 * (`com.talpex.vswitch.port.priority`).
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @param[out] record    8 + 4 * `rangeCount` bytes, the caller's: release with VSDVS_FreeMemory(). Untouched
 *                       on failure.
 * @param[out] priority  the stored priority; 0 when there is none, it can't be read or is not 4 bytes long:
 *                       VLAN_FLAG_PRIORITY in the record's flags tells a priority of 0 from none. Untouched
 *                       on failure.
 * @retval STATUS_OK         both are handed out
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the port or its policy is absent
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    the stored length is not 8 + 4 * `rangeCount`
 * @retval (store)           any other status of the store when it reads the policy (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetPortVLANPolicy(const char *alias, const char *dvPortId,
                                                PortVLANRecord **record, uint32_t *priority);

/**
 * Replaces the VLAN policy of a port (`com.talpex.vswitch.port.vlan`), then stores its priority
 * (`com.talpex.vswitch.port.priority`, 4 bytes) or removes it; both with flags 0x08. No VLAN id, range or
 * priority is checked.
 *
 * @param[in]  alias       name of the switch
 * @param[in]  dvPortId    id of the port
 * @param[in]  vlanId      VLAN id of the port
 * @param[in]  priority    priority, 0 included; VLAN_PRIORITY_NONE for none
 * @param[in]  trunk       Boolean: sets VLAN_FLAG_TRUNK. A trunk without ranges gets the range 0 to 4094.
 * @param[in]  optionFlag  Boolean: sets VLAN_FLAG_OPTION
 * @param[in]  ranges      `rangeCount` VLANRange of 4 bytes, stored in this order, also for a port that is
 *                         not a trunk; may be null when rangeCount is 0
 * @param[in]  rangeCount  number of ranges
 * @retval STATUS_OK         policy and priority are stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such port
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_NO_MEMORY  the record could not be allocated: nothing has changed. Or the store returned
 *                           this status: see (store).
 * @retval (store)           any other status of the store (convention 1). When the policy could not be
 *                           written, nothing has changed; when the priority could not, the new policy is
 *                           stored, and its flags and the stored priority may disagree.
 *
 * @par Example
 * @code
 * const VLANRange ranges[] = {{100, 199}, {300, 300}};
 * VsStatus status = VSDVS_SetPortVLANPolicy(alias, "port0", 0, VLAN_PRIORITY_NONE, 1, 0, ranges, 2);
 * @endcode
 */
VSWITCHCTL_API VsStatus VSDVS_SetPortVLANPolicy(const char *alias, const char *dvPortId, uint16_t vlanId,
                                                uint32_t priority, uint8_t trunk, uint8_t optionFlag,
                                                const VLANRange *ranges, uint16_t rangeCount);

/**
 * Removes the VLAN policy of a port, then its priority (`com.talpex.vswitch.port.vlan` and
 * `com.talpex.vswitch.port.priority`).
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @retval STATUS_OK         both are removed, or were absent
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1); the policy may be removed already
 */
VSWITCHCTL_API VsStatus VSDVS_ClearPortVLANPolicy(const char *alias, const char *dvPortId);

/**
 * Tells whether nested VLAN tagging is on for a port (`com.talpex.vswitch.port.vlanNestedTag`).
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @param[out] enabled   Boolean; 0 when nothing is stored. Untouched on failure.
 * @retval STATUS_OK         the answer is in `enabled`
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    the stored value is not 4 bytes long
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetPortNestedVLANTagging(const char *alias, const char *dvPortId,
                                                       uint8_t *enabled);

/**
 * Turns nested VLAN tagging of a port on or off (`com.talpex.vswitch.port.vlanNestedTag`, 4 bytes, flags
 * 0x10).
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @param[in]  enabled   Boolean
 * @retval STATUS_OK         the setting is stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such port
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_SetPortNestedVLANTagging(const char *alias, const char *dvPortId,
                                                       uint8_t enabled);

/* ==== Port security, extra Ethernet filter, sink port ================================================== */

#define SINK_PORT_BIT 0x00010000u /**< bit of ExtraEthFilterRecord's first word: a sink port */

/** Extra Ethernet filter of a port; 200 bytes. */
typedef struct VSWITCHCTL_PACKED ExtraEthFilterRecord {
    uint32_t firstWord; /**< offset 0: SINK_PORT_BIT; the other bits are stored as they are */
    uint8_t rest[196];  /**< offset 4: stored as it is */
} ExtraEthFilterRecord;

/**
 * Reads the security flags of a port (`com.talpex.vswitch.port.security`).
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @param[out] flags     bits 0 to 2; 1 when nothing is stored. Untouched on failure.
 * @retval STATUS_OK         the flags are in `flags`
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    the stored value is not 4 bytes long
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetPortSecurity(const char *alias, const char *dvPortId, uint32_t *flags);

/**
 * Stores the security flags of a port (`com.talpex.vswitch.port.security`, 4 bytes, flags 0x10). The next
 * VSDVS_SetPortMACLearning() reads bit 1. VSDVS_ClearPortProp() removes them.
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @param[in]  flags     4 bytes, 0 to 7
 * @retval STATUS_OK         the flags are stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such port
 * @retval STATUS_BAD_PARAM  a required pointer is null, a bit above bit 2 is set (tested before the alias is
 *                           looked up), or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_SetPortSecurity(const char *alias, const char *dvPortId, const uint32_t *flags);

/**
 * Reads the extra Ethernet filter of a port (`com.talpex.vswitch.port.extraEthFRP`).
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @param[out] record    200 bytes, the caller's. Untouched on failure.
 * @retval STATUS_OK         the filter is in `record`
 * @retval STATUS_NOT_FOUND  the port or its filter is absent
 * @retval STATUS_BAD_PARAM  a required pointer is null
 * @retval STATUS_FAILURE    no switch has this alias, the switch is not of class "vswitch", or the stored
 *                           value is not 200 bytes long
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetExtraEthFilter(const char *alias, const char *dvPortId,
                                                ExtraEthFilterRecord *record);

/**
 * Stores the extra Ethernet filter of a port (`com.talpex.vswitch.port.extraEthFRP`, flags 0x10), sink port
 * bit included.
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @param[in]  record    200 bytes, not checked
 * @retval STATUS_OK         the filter is stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such port
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_SetExtraEthFilter(const char *alias, const char *dvPortId,
                                                const ExtraEthFilterRecord *record);

/**
 * Removes the extra Ethernet filter of a port, and with it the sink port setting.
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @retval STATUS_OK         the filter is removed, or there was none
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_ClearExtraEthFilter(const char *alias, const char *dvPortId);

/**
 * Tells whether a port is a sink port: whether SINK_PORT_BIT is set in its extra Ethernet filter.
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @param[out] enabled   Boolean; 0 when the port has no filter. Untouched on failure.
 * @retval STATUS_OK         the answer is in `enabled`
 * @retval STATUS_BAD_PARAM  a required pointer is null
 * @retval STATUS_FAILURE    no switch has this alias, the switch is not of class "vswitch", or the stored
 *                           filter is not 200 bytes long
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_IsSinkPortEnabled(const char *alias, const char *dvPortId, uint8_t *enabled);

/**
 * Makes a port a sink port or an ordinary one, by setting or clearing SINK_PORT_BIT in its extra Ethernet
 * filter; the rest of the filter stays the same. A port without a filter gets a filter of zeros, even when
 * `enable` is 0. A bit that already has the wanted value is not written again.
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @param[in]  enable    Boolean
 * @retval STATUS_OK         the port is as wanted
 * @retval STATUS_NOT_FOUND  a filter was to be written, and the store has no such port
 * @retval STATUS_BAD_PARAM  a required pointer is null
 * @retval STATUS_FAILURE    no switch has this alias, the switch is not of class "vswitch", or the stored
 *                           filter is not 200 bytes long; nothing has changed
 * @retval (store)           any other status of the store (convention 1); nothing has changed
 */
VSWITCHCTL_API VsStatus VSDVS_ConfigureSinkPort(const char *alias, const char *dvPortId, uint8_t enable);

/* ==== MAC learning ===================================================================================== */

/** MAC learning of a port; 10 bytes. */
typedef struct VSWITCHCTL_PACKED PortMACLearningConfig {
    uint8_t portFlagA;   /**< offset 0: 0 by default */
    uint8_t portFlagB;   /**< offset 1: 0 by default */
    uint32_t portValueA; /**< offset 2: 4096 by default */
    uint32_t portValueB; /**< offset 6: 0 by default */
} PortMACLearningConfig;

/** MAC learning of a switch on this host; 8 bytes. */
typedef struct VSWITCHCTL_PACKED SwitchMACLearningRecord {
    uint8_t switchValueA[3]; /**< offset 0: 24 bits, lowest byte first; 0 to 1000000, default 600 */
    uint8_t switchByte;      /**< offset 3: no default */
    uint32_t switchValueB;   /**< offset 4: 65536 by default */
} SwitchMACLearningRecord;

/**
 * Reads the MAC learning of a port (`com.talpex.vswitch.port.macManagement`, 11 bytes, of which the last 10
 * are handed out).
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @param[out] config    10 bytes, the caller's; all 0 but `portValueA` 4096 when nothing is stored. Untouched
 *                       on failure.
 * @retval STATUS_OK         the configuration is in `config`
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    the stored value is not 11 bytes long
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetPortMACLearning(const char *alias, const char *dvPortId,
                                                 PortMACLearningConfig *config);

/**
 * Stores the MAC learning of a port (`com.talpex.vswitch.port.macManagement`, flags 0x10): one byte, then the
 * 10 bytes of config. The byte is 1 when the port's stored security flags can be read, are 4 bytes long and
 * have bit 1 clear, else 0; a later VSDVS_SetPortSecurity() does not change it. Reading the flags never fails
 * this operation.
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @param[in]  config    10 bytes, not checked
 * @retval STATUS_OK         the configuration is stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such port
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store when it writes (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_SetPortMACLearning(const char *alias, const char *dvPortId,
                                                 const PortMACLearningConfig *config);

/**
 * Reads the MAC learning of a switch on this host (host property `com.talpex.vswitch.macLearning`).
 *
 * @param[in]  alias   name of the switch
 * @param[out] record  8 bytes, the caller's. When nothing is stored, `switchValueA` is 600 and `switchValueB`
 *                     65536, and `switchByte` stays as it was. Untouched on failure.
 * @retval STATUS_OK         the configuration is in `record`
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    the stored value is not 8 bytes long
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetMACLearning(const char *alias, SwitchMACLearningRecord *record);

/**
 * Stores the MAC learning of a switch on this host (host property `com.talpex.vswitch.macLearning`, flags
 * 0x10).
 *
 * @param[in]  alias   name of the switch
 * @param[in]  record  8 bytes; `switchValueA` at most 1000000, the rest is not checked
 * @retval STATUS_OK         the configuration is stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such switch
 * @retval STATUS_BAD_PARAM  a required pointer is null, `switchValueA` is above 1000000 (tested before the
 *                           alias is looked up), or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 *
 * @par Example
 * @code
 * const uint32_t value = 300;
 * const SwitchMACLearningRecord record = {
 *     {(uint8_t)value, (uint8_t)(value >> 8), (uint8_t)(value >> 16)}, 0, 65536};
 * VsStatus status = VSDVS_SetMACLearning(alias, &record);
 * @endcode
 */
VSWITCHCTL_API VsStatus VSDVS_SetMACLearning(const char *alias, const SwitchMACLearningRecord *record);

/**
 * Removes the MAC learning of a switch on this host (host property `com.talpex.vswitch.macLearning`).
 *
 * @param[in]  alias  name of the switch
 * @retval STATUS_OK         the configuration is removed
 * @retval STATUS_NOT_FOUND  no switch has this alias, or there was nothing to remove
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_ClearMACLearning(const char *alias);

/**
 * Reads the learn-static setting of a switch on this host (host property
 * `com.talpex.vswitch.macLearning.learnStatic`): true when the stored text begins with "true".
 *
 * @param[in]  alias    name of the switch
 * @param[out] enabled  Boolean; 0 when nothing is stored. Untouched on failure.
 * @retval STATUS_OK         the setting is in `enabled`
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetLearnStatic(const char *alias, uint8_t *enabled);

/**
 * Stores the learn-static setting of a switch on this host as "true" or "false" (host property
 * `com.talpex.vswitch.macLearning.learnStatic`, flags 0x10).
 *
 * @param[in]  alias    name of the switch
 * @param[in]  enabled  Boolean
 * @retval STATUS_OK         the setting is stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such switch
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_SetLearnStatic(const char *alias, uint8_t enabled);

/**
 * Removes the learn-static setting of a switch on this host (host property
 * `com.talpex.vswitch.macLearning.learnStatic`).
 *
 * @param[in]  alias  name of the switch
 * @retval STATUS_OK         the setting is removed
 * @retval STATUS_NOT_FOUND  no switch has this alias, or there was nothing to remove
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_ClearLearnStatic(const char *alias);

/* ==== Teaming policies ================================================================================= */

#define TEAMING_OVERRIDE_SIZE 81 /**< bytes of a buffer for a teaming override, NUL included */

/** Teaming policy of a switch or a port; 2616 bytes. */
typedef struct VSWITCHCTL_PACKED TeamingPolicy {
    uint8_t bytes[2616]; /**< offset 0: stored as it is */
} TeamingPolicy;

/**
 * Reads the teaming policy of a switch (`com.talpex.vswitch.teaming`).
 *
 * @param[in]  switchId  id of the switch, at most 63 characters
 * @param[out] policy    2616 bytes, the caller's. Untouched on failure.
 * @retval STATUS_OK         the policy is in `policy`
 * @retval STATUS_NOT_FOUND  the store has no such switch, or the switch has no policy
 * @retval STATUS_BAD_PARAM  a required pointer is null
 * @retval STATUS_FAILURE    the stored value is not 2616 bytes long
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetTeamingPolicyFromDVSID(const char *switchId, TeamingPolicy *policy);

/**
 * Reads the teaming policy of a switch (`com.talpex.vswitch.teaming`).
 *
 * @param[in]  alias   name of the switch
 * @param[out] policy  2616 bytes, the caller's. Untouched on failure.
 * @retval STATUS_OK         the policy is in `policy`
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the switch has no policy
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    the stored value is not 2616 bytes long
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetTeamingPolicy(const char *alias, TeamingPolicy *policy);

/**
 * Stores the teaming policy of a switch (`com.talpex.vswitch.teaming`, flags 0x10).
 *
 * @param[in]  alias   name of the switch
 * @param[in]  policy  2616 bytes, not checked
 * @retval STATUS_OK         the policy is stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such switch
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_SetTeamingPolicy(const char *alias, const TeamingPolicy *policy);

/**
 * Removes the teaming policy of a switch.
 *
 * @param[in]  alias  name of the switch
 * @retval STATUS_OK         the policy is removed, or there was none
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_ClearTeamingPolicy(const char *alias);

/**
 * Tells whether the transmit-uplink mode of a port is "always" (`com.talpex.vswitch.port.txUplink`).
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @param[out] always    Boolean: 1 for "always", 0 for "normal" and every other text. Untouched on failure.
 * @retval STATUS_OK         the answer is in `always`
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the port or its mode is absent
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetTxUplinkAlways(const char *alias, const char *dvPortId, uint8_t *always);

/**
 * Stores the transmit-uplink mode of a port as "always" or "normal" (`com.talpex.vswitch.port.txUplink`, 7
 * bytes, flags 0x10).
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @param[in]  always    Boolean
 * @retval STATUS_OK         the mode is stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such port
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_SetTxUplinkAlways(const char *alias, const char *dvPortId, uint8_t always);

/**
 * Reads the teaming policy of a port (`com.talpex.vswitch.port.teaming.policy`).
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @param[out] policy    2616 bytes, the caller's. A stored value of 8 to 2615 bytes fills only its own
 *                       length, and the rest stays as it was. Untouched on failure.
 * @retval STATUS_OK         the policy is in `policy`
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the port or its policy is absent
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    the stored value is shorter than 8 bytes or longer than 2616
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetPortTeamingPolicy(const char *alias, const char *dvPortId,
                                                   TeamingPolicy *policy);

/**
 * Stores the teaming policy of a port (`com.talpex.vswitch.port.teaming.policy`, flags 0x10).
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @param[in]  policy    2616 bytes, not checked
 * @retval STATUS_OK         the policy is stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such port
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_SetPortTeamingPolicy(const char *alias, const char *dvPortId,
                                                   const TeamingPolicy *policy);

/**
 * Removes the teaming policy of a port.
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @retval STATUS_OK         the policy is removed, or there was none
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_ClearPortTeamingPolicy(const char *alias, const char *dvPortId);

/**
 * Reads the teaming override of a port (`com.talpex.vswitch.port.teaming.override`).
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @param[out] text      TEAMING_OVERRIDE_SIZE (81) bytes, the caller's: at most 80 characters, then zeros.
 *                       Cleared after any failure, a null alias or port id included.
 * @retval STATUS_OK         the override is in `text`
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the port or its override is absent
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    the stored value is longer than 81 bytes
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetPortTeamingOverride(const char *alias, const char *dvPortId, char *text);

/**
 * Stores the teaming override of a port (`com.talpex.vswitch.port.teaming.override`, flags 0x10).
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @param[in]  text      the override, any length; only up to 80 characters can be read back
 * @retval STATUS_OK         the override is stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such port
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_SetPortTeamingOverride(const char *alias, const char *dvPortId,
                                                     const char *text);

/**
 * Removes the teaming override of a port.
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @retval STATUS_OK         the override is removed, or there was none
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_ClearPortTeamingOverride(const char *alias, const char *dvPortId);

/* ==== Logical-switch teaming =========================================================================== */

#define LS_TEAMING_POLICY_NAME_SIZE 136 /**< bytes of a buffer for the name of a logical-switch policy */

/** A logical-switch teaming policy; 2748 bytes. */
typedef struct VSWITCHCTL_PACKED LSTeamingPolicyEntry {
    uint8_t bytes[2748]; /**< offset 0: stored as it is */
} LSTeamingPolicyEntry;

/** Logical-switch teaming policies of a switch; 4 + 2748 * count bytes. */
typedef struct VSWITCHCTL_PACKED LSTeamingPolicyTable {
    uint32_t count; /**< offset 0: number of policies; that many LSTeamingPolicyEntry follow at offset 4 */
} LSTeamingPolicyTable;

/**
 * Reads the logical-switch teaming policies of a switch (`com.talpex.vswitch.logicalswitch.teaming`).
 *
 * @param[in]  switchId  id of the switch, at most 63 characters
 * @param[out] table     the stored value, the caller's: release with VSDVS_FreeMemory(). Its length is not
 *                       compared with its count: a value that VSDVS_SetLSTeamingPolicy() did not write may
 *                       hold fewer entries. Untouched on failure.
 * @retval STATUS_OK         the table is handed out
 * @retval STATUS_NOT_FOUND  the store has no such switch, or the switch has no table
 * @retval STATUS_BAD_PARAM  a required pointer is null
 * @retval STATUS_FAILURE    the stored value is shorter than 4 bytes
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetLSTeamingPolicyTableFromDVSID(const char *switchId,
                                                               LSTeamingPolicyTable **table);

/**
 * Reads the logical-switch teaming policies of a switch (`com.talpex.vswitch.logicalswitch.teaming`).
 *
 * @param[in]  alias  name of the switch
 * @param[out] table  the stored value, the caller's: release with VSDVS_FreeMemory(). Its length is not
 *                    compared with its count: a value that VSDVS_SetLSTeamingPolicy() did not write may hold
 *                    fewer entries. Untouched on failure.
 * @retval STATUS_OK         the table is handed out
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the switch has no table
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    the stored value is shorter than 4 bytes
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetLSTeamingPolicyTable(const char *alias, LSTeamingPolicyTable **table);

/**
 * Stores the logical-switch teaming policies of a switch (`com.talpex.vswitch.logicalswitch.teaming`, flags
 * 0x10).
 *
 * @param[in]  alias  name of the switch
 * @param[in]  table  4 + 2748 * `count` bytes, computed in 32 bits: keep the count at 1562942 or less
 *                    (convention 8)
 * @retval STATUS_OK         the table is stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such switch
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_SetLSTeamingPolicy(const char *alias, const LSTeamingPolicyTable *table);

/**
 * Removes the logical-switch teaming policies of a switch.
 *
 * @param[in]  alias  name of the switch
 * @retval STATUS_OK         the table is removed, or there was none
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_ClearLSTeamingPolicy(const char *alias);

/**
 * Reads the name of the logical-switch teaming policy that a port follows
 * (`com.talpex.vswitch.port.logicalswitch.teaming`). The name is not looked up in the switch's table.
 *
 * @param[in]  alias       name of the switch
 * @param[in]  dvPortId    id of the port
 * @param[out] policyName  LS_TEAMING_POLICY_NAME_SIZE (136) bytes, the caller's: the stored bytes, then
 *                         zeros; a stored value of exactly 136 bytes fills the buffer, and may end without a
 *                         NUL. Cleared after any failure, a null alias or port id included.
 * @retval STATUS_OK         the name is in policyName
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the port or its name is absent
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    the stored value is longer than 136 bytes
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_GetPortLSTeamingPolicyName(const char *alias, const char *dvPortId,
                                                         char *policyName);

/**
 * Stores the name of the logical-switch teaming policy that a port follows
 * (`com.talpex.vswitch.port.logicalswitch.teaming`, flags 0x10). The name is not looked up in the switch's
 * table.
 *
 * @param[in]  alias       name of the switch
 * @param[in]  dvPortId    id of the port
 * @param[in]  policyName  the name, any length; only up to 135 characters can be read back
 * @retval STATUS_OK         the name is stored
 * @retval STATUS_NOT_FOUND  no switch has this alias, or the store has no such port
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_SetPortLSTeamingPolicy(const char *alias, const char *dvPortId,
                                                     const char *policyName);

/**
 * Removes the name of the logical-switch teaming policy that a port follows.
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port
 * @retval STATUS_OK         the name is removed, or there was none
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"
 * @retval (store)           any other status of the store (convention 1)
 */
VSWITCHCTL_API VsStatus VSDVS_ClearPortLSTeamingPolicy(const char *alias, const char *dvPortId);

/* ==== MTU ============================================================================================== */

#define MTU_MIN 1280 /**< smallest MTU in bytes that VSDVS_SetMTU() takes */
#define MTU_MAX 9000 /**< largest MTU in bytes that VSDVS_SetMTU() takes */

/**
 * Reads the MTU in force on a running switch, of any class, from the system shell (convention 11). Of the
 * first 128 bytes of the answer, the last number counts. The stored MTU is not looked at.
 *
 *     /bin/tybel -e get /net/portsets/PORTSET/mtu
 *
 * @param[in]  alias  name of the switch
 * @param[out] mtu    MTU in bytes. Untouched on failure.
 * @retval STATUS_OK         the MTU is in `mtu`
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  a required pointer is null
 * @retval STATUS_FAILURE    the command could not be started or formed, or printed no number
 */
VSWITCHCTL_API VsStatus VSDVS_GetMTU(const char *alias, int32_t *mtu);

/**
 * Sets the MTU of a running switch: on each of its uplinks (the first 32 listed), then on its portset, with
 * these commands (convention 11); then stores it in `com.talpex.vswitch.mtu` and `com.talpex.etherswitch.mtu`
 * (4 bytes, flags 0x10).
 *
 *     tybel -e ls /net/portsets/PORTSET/uplinks
 *     tybel -e set /net/pNics/UPLINK/mtu MTU
 *     tybel -e set /net/portsets/PORTSET/mtu MTU
 *
 * An entry of the listing ends at the first CR or LF; what follows a CR up to the LF is dropped, and so are
 * slashes at the end of an entry. Blank lines are skipped.
 *
 * When a step fails, the uplinks set before it are set back, last first, and the portset too if it was set;
 * all to the MTU that the portset had, even if an uplink had a different MTU. The results of these commands
 * are ignored, and so is a failure to store `com.talpex.etherswitch.mtu`.
 *
 * @param[in]  alias  name of the switch
 * @param[in]  mtu    MTU in bytes, MTU_MIN (1280) to MTU_MAX (9000)
 * @retval STATUS_OK         the MTU is in force, and stored
 * @retval STATUS_NOT_FOUND  no switch has this alias
 * @retval STATUS_BAD_PARAM  alias is null, the MTU is out of range (tested before the alias is looked up), or
 *                           the switch is not of class "vswitch"
 * @retval STATUS_FAILURE    the old MTU could not be read, the uplinks not listed, an entry of the listing
 *                           has more than 31 characters, or a command failed or could not be formed; the
 *                           changes are undone, except at the uplink whose command failed
 * @retval (store)           any status of the store when it writes `com.talpex.vswitch.mtu` (convention 1);
 *                           the changes are undone
 */
VSWITCHCTL_API VsStatus VSDVS_SetMTU(const char *alias, int32_t mtu);

/* ==== Driver requests ================================================================================== */

#define ZOR_DEVICE "/dev/vswitch"                         /**< device of the switch driver */
#define ZOR_RTM_DEVICE "/krem/devices/char/zordriver/rtm" /**< device of VSZOR_RTMOp() */

/** Header of a driver request; 24 bytes. */
typedef struct VSWITCHCTL_PACKED ZorRequestHeader {
    uint32_t inLength;  /**< offset 0: size of the input in bytes; 0 without input */
    uint32_t outLength; /**< offset 4: size of the output buffer in bytes; 0 without output */
    uint64_t inPtr;     /**< offset 8: address of the input; 0 without input */
    uint64_t outPtr;    /**< offset 16: address of the output buffer; 0 without output */
} ZorRequestHeader;

/** Header of a driver list; 8 bytes. The entries follow at offset 8. */
typedef struct VSWITCHCTL_PACKED ZorListHeader {
    uint32_t count; /**< offset 0: number of entries (convention 9) */
    uint32_t aux;   /**< offset 4: as the driver writes it; the kind in VSZOR_GetSwitches() */
} ZorListHeader;

/**
 * Sends one request to a device: opens it for reading and writing, issues one ioctl, closes it again. The
 * VSZOR_ operations use it; call it for commands that have no operation.
 *
 * @param[in]  path     path of the device, such as ZOR_DEVICE
 * @param[in]  request  command number, sign-extended to the width of the request argument of ioctl
 * @param[in]  header   passed to the driver untested (convention 2), which reads `inLength` bytes at `inPtr`
 *                      and writes at most `outLength` bytes at `outPtr`. What these buffers hold after a
 *                      failure is the driver's choice.
 * @retval STATUS_OK         the driver did what was asked, or failed with errno 0
 * @retval STATUS_BAD_PARAM  path is null
 * @retval STATUS_NOT_FOUND  the device is missing
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the device could not be opened or refused the request (convention 1)
 */
VSWITCHCTL_API VsStatus ZORIoctl(const char *path, int32_t request, ZorRequestHeader *header);

/* ==== Running switches and uplinks ===================================================================== */

#define VS_INFO_SIZE 208     /**< bytes of the record of VSZOR_GetVSInfo() */
#define LAG_TABLE_SIZE 35588 /**< bytes of the table of VSZOR_GetLAGTable() */
#define UPLINK_ENTRY_SIZE 36 /**< bytes of an entry of VSZOR_GetUplinks() */
#define UPLINK_HINT_SIZE 32  /**< bytes of the record of VSZOR_PortGetTeamUplinkHint() */

/**
 * Lists the running switches. Driver command 4126 (0x101E).
 *
 * @param[in]  kind      kind of list: 1 gives entries of 128 bytes, as wide as a portset name; any other kind
 *                       entries of 81 bytes
 * @param[out] switches  ZorListHeader (8 bytes), then `count` entries of 128 or 81 bytes; `aux` is the kind.
 *                       The caller's: release with VSZOR_FreeMemory(). Null after any failure.
 * @retval STATUS_OK         the list is complete; `count` may be 0
 * @retval STATUS_BAD_PARAM  `switches` is null; nothing was sent
 * @retval STATUS_FAILURE    no count came back from the first request: the device is missing or the driver
 *                           refused, with any errno. Or see (errno).
 * @retval STATUS_NO_MEMORY  the list could not be allocated, or the driver answered ENOMEM
 * @retval (errno)           the second request failed (convention 1)
 *
 * @par Example
 * @code
 * void *switches;
 * if (VSZOR_GetSwitches(1, &switches) == STATUS_OK) {
 *     const ZorListHeader *list = (const ZorListHeader *)switches;
 *     const char *name = (const char *)(list + 1);
 *     for (uint32_t i = 0; i < list->count; i++, name += PORTSET_NAME_SIZE) printf("%.128s\n", name);
 *     VSZOR_FreeMemory(switches);
 * }
 * @endcode
 */
VSWITCHCTL_API VsStatus VSZOR_GetSwitches(uint32_t kind, void **switches);

/**
 * Reads the driver's information record of a running switch. Driver command 4111 (0x100F).
 *
 * @param[in]  portsetName  kernel name of the switch; cut to 127 characters
 * @param[out] info         VS_INFO_SIZE (208) bytes, the caller's. Untouched when a test fails, cleared when
 *                          the request fails.
 * @retval STATUS_OK         the record is in `info`
 * @retval STATUS_BAD_PARAM  a required pointer is null; nothing was sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetVSInfo(const char *portsetName, void *info);

/**
 * Lists the uplinks of a running switch. Driver command 4106 (0x100A).
 *
 * @param[in]  portsetName  kernel name of the switch; cut to 127 characters
 * @param[out] uplinks      ZorListHeader (8 bytes), then `count` entries of UPLINK_ENTRY_SIZE (36) bytes. The
 *                          caller's: release with VSZOR_FreeMemory(). Untouched when a test or the first
 *                          request fails, null after any later failure.
 * @retval STATUS_OK         the list is complete; `count` may be 0
 * @retval STATUS_BAD_PARAM  a required pointer is null; nothing was sent
 * @retval STATUS_NO_MEMORY  the list could not be allocated, or the driver answered ENOMEM
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 *
 * @par Example
 * @code
 * void *uplinks;
 * if (VSZOR_GetUplinks("lab", &uplinks) == STATUS_OK) {
 *     const ZorListHeader *list = (const ZorListHeader *)uplinks;
 *     printf("%u uplinks\n", list->count);
 *     VSZOR_FreeMemory(uplinks);
 * }
 * @endcode
 */
VSWITCHCTL_API VsStatus VSZOR_GetUplinks(const char *portsetName, void **uplinks);

/**
 * Tells whether the link of an uplink is up. Driver command 4107 (0x100B).
 *
 * @param[in]  portsetName  kernel name of the switch; cut to 127 characters
 * @param[in]  uplinkName   name of the uplink; cut to 31 characters
 * @param[out] linkUp       1 for up, 0 for down. Untouched on failure.
 * @retval STATUS_OK         the state is in linkUp
 * @retval STATUS_BAD_PARAM  a required pointer is null; nothing was sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetUplinkLinkState(const char *portsetName, const char *uplinkName,
                                                 uint32_t *linkUp);

/**
 * Tells whether the link of an uplink is up for LACP. Driver command 4108 (0x100C).
 *
 * @param[in]  portsetName  kernel name of the switch; cut to 127 characters
 * @param[in]  uplinkName   name of the uplink; cut to 31 characters
 * @param[out] linkUp       1 for up, 0 for down. Untouched on failure.
 * @retval STATUS_OK         the state is in linkUp
 * @retval STATUS_BAD_PARAM  a required pointer is null; nothing was sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetUplinkLACPLinkState(const char *portsetName, const char *uplinkName,
                                                     uint32_t *linkUp);

/**
 * Brings an uplink up or takes it down. Driver command 8194 (0x2002).
 *
 * @param[in]  portsetName  kernel name of the switch; cut to 127 characters
 * @param[in]  uplinkName   name of the uplink; cut to 31 characters
 * @param[in]  upFlag       nonzero for up, 0 for down
 * @retval STATUS_OK         the driver took the command
 * @retval STATUS_BAD_PARAM  a required pointer is null; nothing was sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_SetUplinkAdminLinkState(const char *portsetName, const char *uplinkName,
                                                      int32_t upFlag);

/**
 * Reads the LAG table of a running switch. Driver command 4109 (0x100D).
 *
 * @param[in]  portsetName  kernel name of the switch; cut to 127 characters
 * @param[out] table        LAG_TABLE_SIZE (35588) bytes. The caller's: release with VSZOR_FreeMemory().
 *                          Untouched on failure.
 * @retval STATUS_OK         the table is handed out
 * @retval STATUS_BAD_PARAM  a required pointer is null; nothing was sent
 * @retval STATUS_NO_MEMORY  the table could not be allocated, or the driver answered ENOMEM
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetLAGTable(const char *portsetName, void **table);

/**
 * Reads the team uplink hint of a port. Driver command 4122 (0x101A).
 *
 * @param[in]  portNumber  number of the port in the driver, from VSDVS_DvPortIDToPortID()
 * @param[out] hint        UPLINK_HINT_SIZE (32) bytes, the caller's. Untouched when it is null, cleared when
 *                         the request fails.
 * @retval STATUS_OK         the hint is in `hint`
 * @retval STATUS_BAD_PARAM  `hint` is null; nothing was sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_PortGetTeamUplinkHint(uint32_t portNumber, void *hint);

/**
 * Finds the port id of an uplink of this host. Driver command 4123 (0x101B).
 *
 * @param[in]  uplinkName  name of the uplink; cut to 31 characters
 * @param[out] dvPortId    DV_PORT_ID_SIZE (48) bytes, the caller's: the port id as the driver writes it.
 *                         Untouched when a test fails, cleared when the request fails.
 * @retval STATUS_OK         the port id is in dvPortId
 * @retval STATUS_BAD_PARAM  a required pointer is null; nothing was sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetUplinkDVPortID(const char *uplinkName, char *dvPortId);

/**
 * Has the driver refresh its device NUMA information for a running switch. Driver command 8198 (0x2006).
 *
 * @param[in]  portsetName  kernel name of the switch; cut to 127 characters
 * @retval STATUS_OK         the driver took the command
 * @retval STATUS_BAD_PARAM  portsetName is null; nothing was sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_RefreshDevNUMAInfo(const char *portsetName);

/* ==== MAC tables of the running switch ================================================================= */

#define PORT_MAC_LEARNING_STATS_SIZE 28  /**< bytes of the record of VSZOR_GetPortMACLearningStats() */
#define SWITCH_MAC_LEARNING_INFO_SIZE 52 /**< bytes of the record of VSZOR_GetSwitchMACLearningInfo() */

/** An entry of a MAC table; 18 bytes. */
typedef struct VSWITCHCTL_PACKED ZorMacTableEntry {
    uint8_t bytes[18]; /**< offset 0: the driver's fields */
} ZorMacTableEntry;

/** The driver's MAC learning properties; 9 bytes. */
typedef struct VSWITCHCTL_PACKED ZorMacLearningProps {
    uint8_t bytes[9]; /**< offset 0: the driver's fields */
} ZorMacLearningProps;

/**
 * Lists the MAC addresses known at a port. Driver command 4117 (0x1015).
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port; cut to 47 characters
 * @param[in]  selector  which addresses, as the driver defines it; a byte sent in the place of the seventh
 *                       byte of an entry
 * @param[out] table     ZorListHeader (8 bytes), then `count` ZorMacTableEntry of 18 bytes. The caller's:
 *                       release with VSZOR_FreeMemory(). Untouched when a test, the alias or the first
 *                       request fails, null after any later failure.
 * @retval STATUS_OK         the list is complete; `count` may be 0
 * @retval STATUS_NOT_FOUND  no switch has this alias, or see (errno)
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"; nothing was
 *                           sent
 * @retval STATUS_NO_MEMORY  the list could not be allocated, or the driver answered ENOMEM
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetPortMACTable(const char *alias, const char *dvPortId, uint8_t selector,
                                              void **table);

/**
 * Puts an entry into the MAC table of a port. Driver command 8195 (0x2003).
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port; cut to 47 characters
 * @param[in]  entry     18 bytes, sent as they are
 * @retval STATUS_OK         the driver took the entry
 * @retval STATUS_NOT_FOUND  no switch has this alias, or see (errno)
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"; nothing was
 *                           sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_SetPortMACTable(const char *alias, const char *dvPortId,
                                              const ZorMacTableEntry *entry);

/**
 * Removes an entry from the MAC table of a port. Driver command 8196 (0x2004).
 *
 * @param[in]  alias     name of the switch
 * @param[in]  dvPortId  id of the port; cut to 47 characters
 * @param[in]  entry     18 bytes, sent as they are
 * @retval STATUS_OK         the driver took the command
 * @retval STATUS_NOT_FOUND  no switch has this alias, or see (errno)
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"; nothing was
 *                           sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_ClearPortMACTable(const char *alias, const char *dvPortId,
                                                const ZorMacTableEntry *entry);

/**
 * Lists the MAC addresses known at the team of a running switch, of any class. Driver command 4118 (0x1016).
 *
 * @param[in]  alias     name of the switch
 * @param[in]  selector  which addresses, as the driver defines it; only its low 8 bits are sent
 * @param[out] table     ZorListHeader (8 bytes), then `count` ZorMacTableEntry of 18 bytes. The caller's:
 *                       release with VSZOR_FreeMemory(). Untouched when a test, the alias or the first
 *                       request fails, null after any later failure.
 * @retval STATUS_OK         the list is complete; `count` may be 0
 * @retval STATUS_NOT_FOUND  no switch has this alias, or see (errno)
 * @retval STATUS_BAD_PARAM  a required pointer is null; nothing was sent
 * @retval STATUS_NO_MEMORY  the list could not be allocated, or the driver answered ENOMEM
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetTeamMACTable(const char *alias, int32_t selector, void **table);

/**
 * Reads the MAC learning statistics of a port. Takes the port id first and the alias second, unlike all other
 * operations. Driver command 4119 (0x1017).
 *
 * @param[in]  dvPortId  id of the port; cut to 47 characters
 * @param[in]  alias     name of the switch
 * @param[out] stats     PORT_MAC_LEARNING_STATS_SIZE (28) bytes, the caller's. Untouched when a test or the
 *                       alias fails, cleared when the request fails.
 * @retval STATUS_OK         the statistics are in `stats`
 * @retval STATUS_NOT_FOUND  no switch has this alias, or see (errno)
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the switch is not of class "vswitch"; nothing was
 *                           sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetPortMACLearningStats(const char *dvPortId, const char *alias, void *stats);

/**
 * Reads the driver's MAC learning properties, which hold for the whole host. Driver command 4120 (0x1018).
 *
 * @param[out] props  9 bytes, the caller's. Untouched by the library on failure.
 * @retval STATUS_OK         the properties are in `props`
 * @retval STATUS_BAD_PARAM  `props` is null; nothing was sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetGlobalMACLearningProps(ZorMacLearningProps *props);

/**
 * Sets the driver's MAC learning properties, which hold for the whole host. Driver command 8197 (0x2005).
 *
 * @param[in]  props  9 bytes, sent as they are
 * @retval STATUS_OK         the driver took the properties
 * @retval STATUS_BAD_PARAM  `props` is null; nothing was sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_SetGlobalMACLearningProps(const ZorMacLearningProps *props);

/**
 * Reads the MAC learning information of a running switch. Driver command 4121 (0x1019).
 *
 * @param[in]  portsetName  kernel name of the switch; cut to 127 characters
 * @param[out] info         SWITCH_MAC_LEARNING_INFO_SIZE (52) bytes, the caller's. Untouched by the library
 *                          on failure.
 * @retval STATUS_OK         the information is in `info`
 * @retval STATUS_BAD_PARAM  a required pointer is null; nothing was sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetSwitchMACLearningInfo(const char *portsetName, void *info);

/* ==== Multicast and mirroring of the running switch ==================================================== */

#define ADDRESS_KIND_ETHERNET 0       /**< kind of address: Ethernet multicast, 6 bytes */
#define ADDRESS_KIND_IPV4 2           /**< kind of address: IPv4, 4 bytes */
#define ADDRESS_KIND_IPV6 3           /**< kind of address: IPv6, 16 bytes */
#define MIRROR_SESSION_STATS_SIZE 121 /**< bytes of the record of VSZOR_GetDVMirrorSessionStats() */

/** Header of the statistics of a multicast group; 28 bytes. Its sources follow at offset 28. */
typedef struct VSWITCHCTL_PACKED ZorMcastStatsHeader {
    uint8_t statistics[20]; /**< offset 0: the driver's fields */
    uint32_t count;         /**< offset 20: number of sources, of 4 or 16 bytes each (convention 9) */
    uint8_t reserved[4];    /**< offset 24: the driver's */
} ZorMcastStatsHeader;

/**
 * Reads the multicast filter mode in force on a running switch. Driver command 4103 (0x1007).
 *
 * @param[in]  portsetName  kernel name of the switch; cut to 127 characters
 * @param[out] mode         the driver's value, unchanged: MCAST_FILTER_LEGACY (0) or MCAST_FILTER_SNOOPING
 *                          (1). Untouched by the library on failure; a driver that fails may have written
 *                          to it before.
 * @retval STATUS_OK         the mode is in `mode`
 * @retval STATUS_BAD_PARAM  a required pointer is null; nothing was sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetMcastFilterMode(const char *portsetName, uint32_t *mode);

/**
 * Lists the multicast addresses of one kind that a running switch filters. Driver command 4104 (0x1008).
 *
 * @param[in]  portsetName  kernel name of the switch; cut to 127 characters
 * @param[in]  selector     which filters, as the driver defines it
 * @param[in]  kind         ADDRESS_KIND_ETHERNET (0), ADDRESS_KIND_IPV4 (2) or ADDRESS_KIND_IPV6 (3)
 * @param[out] filters      ZorListHeader (8 bytes), then `count` addresses of 6, 4 or 16 bytes for kind 0, 2
 *                          or 3. The caller's: release with VSZOR_FreeMemory(). Untouched when a test, the
 *                          first request or the kind fails, null after any later failure.
 * @retval STATUS_OK         the list is complete; `count` may be 0
 * @retval STATUS_BAD_PARAM  a required pointer is null, and nothing was sent; or the kind is not 0, 2 or 3,
 *                           which is tested after the first request succeeded
 * @retval STATUS_NO_MEMORY  the list could not be allocated, or the driver answered ENOMEM
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetMcastFilters(const char *portsetName, uint32_t selector, int32_t kind,
                                              void **filters);

/**
 * Reads the statistics of a multicast group on a running switch, with the list of its sources. Driver command
 * 4105 (0x1009).
 *
 * @param[in]  portsetName  kernel name of the switch; cut to 127 characters
 * @param[in]  selector     which filters, as the driver defines it
 * @param[in]  kind         ADDRESS_KIND_IPV4 (2) or ADDRESS_KIND_IPV6 (3)
 * @param[in]  group        address of the group: 4 bytes for kind 2, 16 for kind 3, sent as it is
 * @param[out] stats        ZorMcastStatsHeader (28 bytes), then `count` addresses of 4 or 16 bytes. The
 *                          caller's: release with VSZOR_FreeMemory(). Untouched when a test or the first
 *                          request fails, null after any later failure.
 * @retval STATUS_OK         statistics and sources are complete; `count` may be 0
 * @retval STATUS_BAD_PARAM  a required pointer is null, or the kind is neither 2 nor 3; nothing was sent
 * @retval STATUS_NO_MEMORY  the buffer could not be allocated, or the driver answered ENOMEM
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 *
 * @par Example
 * @code
 * const uint8_t group[4] = {239, 1, 1, 1};
 * void *stats;
 * if (VSZOR_GetMcastFilterStats("lab", 0, ADDRESS_KIND_IPV4, group, &stats) == STATUS_OK) {
 *     const ZorMcastStatsHeader *header = (const ZorMcastStatsHeader *)stats;
 *     const uint8_t *source = (const uint8_t *)(header + 1);
 *     for (uint32_t i = 0; i < header->count; i++, source += 4)
 *         printf("%u.%u.%u.%u\n", source[0], source[1], source[2], source[3]);
 *     VSZOR_FreeMemory(stats);
 * }
 * @endcode
 */
VSWITCHCTL_API VsStatus VSZOR_GetMcastFilterStats(const char *portsetName, uint32_t selector, int32_t kind,
                                                  const void *group, void **stats);

/**
 * Lists the ids of the mirror sessions of a running switch, of any class. Driver command 4101 (0x1005).
 *
 * @param[in]  alias  name of the switch
 * @param[out] ids    ZorListHeader (8 bytes), then `count` ids of 32 bytes. The caller's: release with
 *                    VSZOR_FreeMemory(). Untouched when a test, the alias or the first request fails, null
 *                    after any later failure.
 * @retval STATUS_OK         the list is complete; `count` may be 0
 * @retval STATUS_NOT_FOUND  no switch has this alias, or see (errno)
 * @retval STATUS_BAD_PARAM  a required pointer is null; nothing was sent
 * @retval STATUS_NO_MEMORY  the list could not be allocated, or the driver answered ENOMEM
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetDVMirrorSessionIDs(const char *alias, void **ids);

/**
 * Reads the statistics of a mirror session of a running switch, of any class. Driver command 4102 (0x1006).
 *
 * @param[in]  alias      name of the switch
 * @param[in]  sessionId  id of the session; cut to 31 characters
 * @param[out] stats      MIRROR_SESSION_STATS_SIZE (121) bytes, the caller's. Untouched by the library on
 *                        failure.
 * @retval STATUS_OK         the statistics are in `stats`
 * @retval STATUS_NOT_FOUND  no switch has this alias, or see (errno)
 * @retval STATUS_BAD_PARAM  a required pointer is null; nothing was sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetDVMirrorSessionStats(const char *alias, const char *sessionId, void *stats);

/**
 * Lists the active destinations of the promiscuous sessions of a running switch, of any class. Driver command
 * 4100 (0x1004).
 *
 * @param[in]  alias  name of the switch
 * @param[out] dsts   ZorListHeader (8 bytes), then `count` 32-bit destinations. The caller's: release with
 *                    VSZOR_FreeMemory(). Untouched when a test, the alias or the first request fails, null
 *                    after any later failure.
 * @retval STATUS_OK         the list is complete; `count` may be 0
 * @retval STATUS_NOT_FOUND  no switch has this alias, or see (errno)
 * @retval STATUS_BAD_PARAM  a required pointer is null; nothing was sent
 * @retval STATUS_NO_MEMORY  the list could not be allocated, or the driver answered ENOMEM
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetPromiscSessionActiveDsts(const char *alias, void **dsts);

/* ==== Teaming statistics, runtime options, RTM ========================================================= */

#define RARP_STATS_SIZE 16                 /**< bytes of the record of VSZOR_GetRARPStats() */
#define SERVICE_PORT_TEAMING_STATS_SIZE 48 /**< bytes of the record of VSZOR_GetServicePortTeamingStats() */
#define RUNTIME_OPTIONS_SIZE 4096          /**< bytes of the record of VSZOR_GetRuntimeOptions() */

/**
 * Reads the RARP statistics of a running switch. Driver command 4097 (0x1001).
 *
 * @param[in]  portsetName  kernel name of the switch; cut to 127 characters
 * @param[out] stats        RARP_STATS_SIZE (16) bytes, the caller's. Untouched when a test fails, cleared
 *                          when the request fails.
 * @retval STATUS_OK         the statistics are in `stats`
 * @retval STATUS_BAD_PARAM  a required pointer is null; nothing was sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetRARPStats(const char *portsetName, void *stats);

/**
 * Reads the service-port teaming statistics of a running switch. Driver command 4098 (0x1002).
 *
 * @param[in]  portsetName  kernel name of the switch; cut to 127 characters
 * @param[out] stats        SERVICE_PORT_TEAMING_STATS_SIZE (48) bytes, the caller's. Untouched when a test
 *                          fails, cleared when the request fails.
 * @retval STATUS_OK         the statistics are in `stats`
 * @retval STATUS_BAD_PARAM  a required pointer is null; nothing was sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetServicePortTeamingStats(const char *portsetName, void *stats);

/**
 * Reads run-time options of the driver. Driver command 4099 (0x1003).
 *
 * @param[in]  ids      idCount option ids of 16 bits; may be null, which asks for no particular options, like
 *                      an idCount of 0
 * @param[in]  idCount  number of ids
 * @param[out] options  RUNTIME_OPTIONS_SIZE (4096) bytes. The caller's: release with VSZOR_FreeMemory().
 *                      Untouched when it is null, null after any later failure.
 * @retval STATUS_OK         the options are handed out
 * @retval STATUS_BAD_PARAM  `options` is null; nothing was sent
 * @retval STATUS_NO_MEMORY  the buffer could not be allocated, or the driver answered ENOMEM
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 *
 * @par Example
 * @code
 * const uint16_t ids[] = {1, 2, 3};
 * void *options;
 * VsStatus status = VSZOR_GetRuntimeOptions(ids, 3, &options);
 * if (status == STATUS_OK) VSZOR_FreeMemory(options);
 * @endcode
 */
VSWITCHCTL_API VsStatus VSZOR_GetRuntimeOptions(const uint16_t *ids, uint16_t idCount, void **options);

/**
 * Sets run-time options of the driver. Driver command 8193 (0x2001).
 *
 * @param[in]  record  its first 32 bits are its total length in bytes, which the driver reads: it must be
 *                     correct (convention 8). The rest is the driver's.
 * @retval STATUS_OK         the driver took the options
 * @retval STATUS_BAD_PARAM  `record` is null; nothing was sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_SetRuntimeOptions(const void *record);

/**
 * Reads the name of the logical-switch teaming policy that a port follows in the driver. Driver command 4124
 * (0x101C).
 *
 * @param[in]  portNumber  number of the port in the driver, from VSDVS_DvPortIDToPortID()
 * @param[out] policyName  LS_TEAMING_POLICY_NAME_SIZE (136) bytes, the caller's: the name as the driver
 *                         writes it. Untouched when it is null, cleared when the request fails.
 * @retval STATUS_OK         the name is in policyName
 * @retval STATUS_BAD_PARAM  policyName is null; nothing was sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetPortLSTeamingPolicyName(uint32_t portNumber, char *policyName);

/**
 * Reads the logical-switch teaming policies that the driver holds for a running switch, of any class. Driver
 * command 4125 (0x101D).
 *
 * @param[in]  alias  name of the switch
 * @param[out] table  4 + 2748 * `count` bytes. The caller's: release with VSZOR_FreeMemory(), unlike the
 *                    stored table of VSDVS_GetLSTeamingPolicyTable(). Untouched when a test, the alias or the
 *                    first request fails, null after any later failure.
 * @retval STATUS_OK         the table is complete; `count` may be 0
 * @retval STATUS_NOT_FOUND  no switch has this alias, or see (errno)
 * @retval STATUS_BAD_PARAM  a required pointer is null; nothing was sent
 * @retval STATUS_NO_MEMORY  the table could not be allocated, or the driver answered ENOMEM
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_GetLSTeamingPolicyTable(const char *alias, LSTeamingPolicyTable **table);

/**
 * Sends a request to the RTM device, ZOR_RTM_DEVICE.
 *
 * @param[in]  record   its first 32 bits are its number of entries c; the driver reads 9 + 128 * c bytes,
 *                      computed in 32 bits, and the record must hold as many (convention 8). The rest is the
 *                      driver's.
 * @param[in]  command  command number, sign-extended to the width of the request argument of ioctl as in
 *                      ZORIoctl(): 0x80000000 and above set the upper bits too
 * @retval STATUS_OK         the driver took the request
 * @retval STATUS_BAD_PARAM  `record` is null; nothing was sent
 * @retval STATUS_FAILURE    the driver answered EINVAL, or an errno that has no code of its own
 * @retval (errno)           the driver could not be reached or refused (convention 1)
 */
VSWITCHCTL_API VsStatus VSZOR_RTMOp(const void *record, uint32_t command);

#ifdef __cplusplus
}
#endif
#endif
