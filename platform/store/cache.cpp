// The cache: handles interned by name, and results of the engine, each with a stamp.
#include "platform/store/cache.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/host/bundle.h"

namespace vshost {
namespace {

constexpr size_t KEPT_VALUES = 16;
constexpr std::string_view TOKEN_KEY = "configuration";

// When a result was read: from which host, and at which value of its change counter. The counter is odd while
// a change is in flight; nothing that is read then is kept.
struct Stamp {
    uint64_t serial = 0;
    uint64_t change = 1;

    bool IsStable() const { return change % 2 == 0; }
    bool operator==(const Stamp &) const = default;
};

Stamp Now(const HostUse &host) { return {host.Serial(), host.GetControl()->Changes().load()}; }

// Hashes keys without making strings of them.
struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};
template<typename Value> using TextMap = std::unordered_map<std::string, Value, TextHash, std::equal_to<>>;

}

// A property in the cache. Its recent values stay readable, because another thread may be reading one.
struct PropHandle {
    Stamp stamp;
    std::unique_ptr<std::string> value;
    std::array<std::unique_ptr<std::string>, KEPT_VALUES> older;
    size_t next = 0;

    void Update(const Stamp &newStamp, std::string &&newValue)
    {
        stamp = newStamp;
        if (value && *value == newValue) return;
        auto taken = std::make_unique<std::string>(std::move(newValue));
        older[next++ % KEPT_VALUES] = std::exchange(value, std::move(taken));
    }
};

struct PortHandle {};

namespace {

struct AliasMemory {
    Stamp stamp;
    SwitchHandle *handle = nullptr;
};

using SwitchWalk = std::vector<SwitchHandle *>;

// `mutex` guards all of it, except what handles point to, which doesn't change until a reset. A thread locks
// the mutex only while it has a HostUse: fork waits for every HostUse, not for the mutex.
struct Cache {
    std::mutex mutex;
    bool loaded = false;
    TextMap<AliasMemory> aliases;
    TextMap<std::unique_ptr<SwitchHandle>> switches; // by id and class
    TextMap<std::unique_ptr<PropHandle>> properties; // by level, id and key
    TextMap<std::unique_ptr<PortHandle>> ports;      // by switch and port id
    std::shared_ptr<const SwitchWalk> walk;
    Stamp walkStamp;
};

// Never destroyed: other threads may still use it while the process exits.
Cache &TheCache()
{
    static auto *const cache = new Cache;
    return *cache;
}

// Reads with `read`, and sets the stamp with which the result may be kept.
template<typename Read> VsStatus ReadStamped(const HostUse &host, Stamp &stamp, Read read)
{
    const Stamp before = Now(host);
    const VsStatus status = read(host->GetEngine());
    stamp = before == Now(host) ? before : Stamp();
    return status;
}

bool IsFresh(const Stamp &stamp, const HostUse &host) { return stamp.IsStable() && stamp == Now(host); }

// The interned object of a key, made if it is missing.
template<typename Object> Object *Intern(TextMap<std::unique_ptr<Object>> &map, std::string_view key)
{
    const auto found = map.find(key);
    if (found != map.end()) return found->second.get();
    return map.emplace(key, std::make_unique<Object>()).first->second.get();
}

SwitchHandle *InternSwitch(Cache &cache, std::string_view id, std::string_view className)
{
    SwitchHandle *handle = Intern(cache.switches, Key({id, className}));
    if (handle->id[0] != '\0') return handle;
    id.copy(handle->id, MAX_SWITCH_ID);
    handle->className = className;
    return handle;
}

// Runs `body` on the cache; the result is `nothing` when the cache is not loaded or there is no host.
template<typename Result, typename Body> Result OnCache(const HostUse &host, Result nothing, Body body)
{
    Cache &cache = TheCache();
    std::lock_guard lock(cache.mutex);
    return cache.loaded && host ? body(cache) : nothing;
}

SwitchHandle *FindByAlias(Cache &cache, const HostUse &host, std::string_view alias)
{
    const auto memory = cache.aliases.find(alias);
    if (memory != cache.aliases.end() && IsFresh(memory->second.stamp, host)) return memory->second.handle;
    std::string id;
    StoredSwitch found;
    Stamp stamp;
    const VsStatus status = ReadStamped(host, stamp, [&](Engine &engine) {
        const VsStatus search = FindSwitchByAlias(engine, alias, id);
        return search == STATUS_OK ? GetSwitch(engine, id, found) : search;
    });
    if (status != STATUS_OK) {
        if (memory != cache.aliases.end()) cache.aliases.erase(memory);
        return nullptr;
    }
    SwitchHandle *handle = InternSwitch(cache, id, found.className);
    cache.aliases[std::string(alias)] = {stamp, handle};
    return handle;
}

// Absent properties are not kept: the number of names that do not exist has no limit.
VsStatus Lookup(Cache &cache, const HostUse &host, const StoreCall &call, PropHandle **handle)
{
    const std::string key =
        Key({call.level == StoredLevel::HOST ? "host" : "global", call.switchId, call.key});
    const auto memory = cache.properties.find(key);
    if (memory != cache.properties.end() && IsFresh(memory->second->stamp, host)) {
        *handle = memory->second.get();
        return STATUS_OK;
    }
    StoredProperty found;
    Stamp stamp;
    const VsStatus status = ReadStamped(host, stamp, [&](Engine &engine) {
        return GetProperty(engine, {call.level, call.switchId}, call.key, found);
    });
    if (status != STATUS_OK) {
        if (memory != cache.properties.end()) memory->second->stamp = {};
        return status;
    }
    *handle = Intern(cache.properties, key);
    (*handle)->Update(stamp, std::move(found.value));
    return STATUS_OK;
}

std::shared_ptr<const SwitchWalk> CurrentWalk(Cache &cache, const HostUse &host)
{
    if (cache.walk && IsFresh(cache.walkStamp, host)) return cache.walk;
    auto walk = std::make_shared<SwitchWalk>();
    ReadStamped(host, cache.walkStamp, [&](Engine &engine) {
        return ForEachSwitch(engine, [&](std::string_view id, std::string_view className) {
            walk->push_back(InternSwitch(cache, id, className));
            return true;
        });
    });
    cache.walk = walk;
    return walk;
}

bool IsToken(std::string_view buffer)
{
    BundleEntry entry;
    return CheckBundle(buffer) && FindEntry(buffer, TOKEN_KEY, entry);
}

// Runs an operation that tests can fail and record as `call`.
template<typename Body> VsStatus Intercept(const HostUse &host, const StoreCall &call, Body body)
{
    const CallDetails details = call.Details();
    InterceptedCall intercepted(host.GetFaults(), VSHOST_STORE, call.operation, details);
    return intercepted.Fails() ? intercepted.Outcome() : intercepted.Return(Guard(body));
}

// A call that needs no host and cannot fail. It holds the host all the same, so that no fork happens while it
// uses the cache.
class RecordedCall {
public:
    explicit RecordedCall(const StoreCall &call)
        : details(call.Details(false)), intercepted(host.GetFaults(), VSHOST_STORE, call.operation, details)
    {}

private:
    HostUse host;
    const CallDetails details;
    InterceptedCall intercepted;
};

}

VsStatus CacheToken(const StoreCall &call, void **buffer, uint32_t *length)
{
    HostUse host;
    return Intercept(host, call, [&] {
        if (!buffer || !length) return STATUS_BAD_PARAM;
        if (host.Status() != STATUS_OK) return host.Status();
        std::string token = EmptyBundle();
        PutEntry(token, {TOKEN_KEY, 0, {}});
        *buffer = malloc(token.size());
        if (!*buffer) return STATUS_NO_MEMORY;
        memcpy(*buffer, token.data(), token.size());
        *length = static_cast<uint32_t>(token.size());
        return STATUS_OK;
    });
}

VsStatus CacheReset(const StoreCall &call)
{
    HostUse host;
    return Intercept(host, call, [] {
        Cache &cache = TheCache();
        std::lock_guard lock(cache.mutex);
        cache.loaded = false;
        cache.aliases.clear();
        cache.walk.reset();
        cache.switches.clear();
        cache.properties.clear();
        cache.ports.clear();
        return STATUS_OK;
    });
}

VsStatus CacheLoad(const StoreCall &call, const void *buffer, uint32_t length)
{
    HostUse host;
    return Intercept(host, call, [&] {
        if (!buffer || !IsToken({static_cast<const char *>(buffer), length})) return STATUS_BAD_PARAM;
        Cache &cache = TheCache();
        std::lock_guard lock(cache.mutex);
        cache.loaded = true;
        return STATUS_OK;
    });
}

SwitchHandle *CacheFindByAlias(const StoreCall &call)
{
    HostUse host;
    SwitchHandle *handle = nullptr;
    Intercept(host, call, [&] {
        if (!call.key) return STATUS_BAD_PARAM;
        handle = OnCache<SwitchHandle *>(host, nullptr,
                                         [&](Cache &cache) { return FindByAlias(cache, host, call.key); });
        return handle ? STATUS_OK : STATUS_NOT_FOUND;
    });
    return handle;
}

VsStatus CacheForEach(const StoreCall &call, SwitchCallback callback, void *context)
{
    std::shared_ptr<const SwitchWalk> walk;
    const auto take = [&](const HostUse &host) {
        return Intercept(host, call, [&] {
            walk = OnCache(host, walk, [&](Cache &cache) { return CurrentWalk(cache, host); });
            return callback ? STATUS_OK : STATUS_BAD_PARAM;
        });
    };
    if (VsStatus status = take(HostUse())) return status;
    if (!walk) return STATUS_OK;
    for (SwitchHandle *handle : *walk) {
        if (callback(handle, context) != 0) break;
    }
    return STATUS_OK;
}

PortHandle *CacheFindPort(const StoreCall &call)
{
    HostUse host;
    PortHandle *handle = nullptr;
    Intercept(host, call, [&] {
        if (!call.switchId || !call.portId) return STATUS_BAD_PARAM;
        return OnCache(host, STATUS_NOT_FOUND, [&](Cache &cache) {
            uint32_t number;
            if (VsStatus status = GetPortNumber(host->GetEngine(), call.switchId, call.portId, number))
                return status;
            handle = Intern(cache.ports, Key({call.switchId, call.portId}));
            return STATUS_OK;
        });
    });
    return handle;
}

VsStatus CacheLookup(const StoreCall &call, PropHandle **handle)
{
    HostUse host;
    return Intercept(host, call, [&] {
        if (!call.switchId || !call.key || !handle) return STATUS_BAD_PARAM;
        return OnCache(host, STATUS_NOT_FOUND,
                       [&](Cache &cache) { return Lookup(cache, host, call, handle); });
    });
}

const char *CacheClassName(const StoreCall &call, const SwitchHandle *handle)
{
    RecordedCall recorded(call);
    return handle ? handle->className.c_str() : nullptr;
}

const char *CacheSwitchId(const StoreCall &call, const SwitchHandle *handle)
{
    RecordedCall recorded(call);
    return handle ? handle->id : nullptr;
}

void CacheData(const StoreCall &call, PropHandle *handle, void **data)
{
    RecordedCall recorded(call);
    if (!handle || !data) return;
    std::lock_guard lock(TheCache().mutex);
    *data = handle->value->data();
}

}
