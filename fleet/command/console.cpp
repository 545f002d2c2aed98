#include "fleet/command/console.h"

#include <fmt/format.h>
#include <pwd.h>
#include <unistd.h>

#include "fleet/protocol/certificates.h"
#include "fleet/protocol/keys.h"

namespace vsfleet {

namespace {

Error ErrorOf(const EtcdError &error)
{
    switch (error.kind) {
    case EtcdError::Kind::UNREACHABLE:
        return Error(
            Exit::UNREACHABLE, error.what(),
            "check that most of its members run; look at `vsfleet status` before you repeat a change");
    case EtcdError::Kind::DENIED:
        return Error(Exit::PERMISSION, error.what(), "use a configuration with another certificate");
    case EtcdError::Kind::NO_SPACE:
        return Error(Exit::FAILURE, error.what(),
                     "run `etcdctl compact`, `etcdctl defrag` and `etcdctl alarm disarm`");
    case EtcdError::Kind::RESTORED:
        return Error(Exit::FAILURE, error.what(), "see `vsfleet adopt`");
    default:
        return Error(Exit::FAILURE, error.what());
    }
}

}

Console::Console(std::string command, const std::string &configFile, bool json)
    : command(std::move(command)), json(json), config(ReadConfig(configFile)), client(config.endpoints)
{}

void Console::ReadFleet()
{
    const Snapshot snapshot = client.GetPrefix(keys::ROOT);
    fleet.Read(snapshot);
    revision = snapshot.revision;
}

Audit Console::NewAudit(const std::string &action) const
{
    Audit audit;
    audit.time = TimeText();
    audit.author = Author();
    audit.action = action;
    return audit;
}

bool Console::Commit(Transaction &transaction, const Audit &audit)
{
    transaction.Put(keys::AUDIT + audit.time + "-" + RandomId(), ToText(audit));
    return client.Commit(transaction).isDone;
}

std::string Author()
{
    const char *user = getenv("SUDO_USER");
    if (!user || !*user) {
        const passwd *entry = getpwuid(getuid());
        user = entry ? entry->pw_name : "?";
    }
    char host[256] = "";
    gethostname(host, sizeof(host) - 1);
    return fmt::format("{}@{}", user, host);
}

Action Guarded(std::string command, std::shared_ptr<bool> json, std::function<Exit(Console &)> run)
{
    return [=](const std::string &configFile) {
        const auto fail = [&](const Error &error) {
            PrintError(error, *json);
            return static_cast<int>(error.exit);
        };
        try {
            Console console(command, configFile, *json);
            return static_cast<int>(run(console));
        } catch (const Error &error) {
            return fail(error);
        } catch (const EtcdError &error) {
            return fail(ErrorOf(error));
        } catch (const std::exception &error) {
            return fail(Error(Exit::FAILURE, error.what()));
        }
    };
}

void CheckName(const std::string &name, const std::string &what)
{
    constexpr const char *ALLOWED = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    if (name.empty() || name.size() > 200 || name.find_first_not_of(ALLOWED) != std::string::npos)
        throw Error(Exit::BAD_VALUE, fmt::format("'{}' can't be {}", name, what),
                    "use 1 to 200 letters, digits, '.', '_' and '-'");
}

std::string Join(const Labels &labels)
{
    std::string text;
    for (const auto &[name, value] : labels)
        text += fmt::format("{}{}={}", text.empty() ? "" : ",", name, value);
    return text;
}

}
