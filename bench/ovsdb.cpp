#include "bench/ovsdb.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

[[noreturn]] void Give(const char *what, const std::string &detail)
{
    fprintf(stderr, "OVSDB: %s: %.400s\n", what, detail.c_str());
    exit(1);
}

// The ids of inserted rows, in the order of the inserts.
std::vector<std::string> InsertedIds(const std::string &answer)
{
    constexpr char MARK[] = "\"uuid\":[\"uuid\",\"";
    std::vector<std::string> ids;
    for (size_t at = answer.find(MARK); at != std::string::npos; at = answer.find(MARK, at + 1))
        ids.push_back(answer.substr(at + sizeof(MARK) - 1, 36));
    return ids;
}

}

Ovsdb::Ovsdb(const char *socketPath) : socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%s", socketPath);
    if (connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        Give("no server behind the socket", socketPath);
}

Ovsdb::~Ovsdb() { close(socket); }

const std::string &Ovsdb::Transact(const std::string &operations)
{
    Send("{\"id\":0,\"method\":\"transact\",\"params\":[\"Open_vSwitch\"," + operations + "]}");
    do
        Receive();
    while (answer.find("\"method\":\"echo\"") != std::string::npos); // the server checks the connection
    if (answer.find("\"error\":\"") != std::string::npos) Give("refused", answer);
    return answer;
}

void Ovsdb::Send(const std::string &text)
{
    for (size_t sent = 0; sent < text.size();) {
        const ssize_t written = write(socket, text.data() + sent, text.size() - sent);
        if (written <= 0) Give("cannot write", strerror(errno));
        sent += static_cast<size_t>(written);
    }
}

void Ovsdb::Receive()
{
    answer.clear();
    looked = 0;
    while (!ReceivedWhole()) {
        char part[65536];
        const ssize_t size = read(socket, part, sizeof(part));
        if (size <= 0) Give("connection lost", strerror(errno));
        answer.append(part, static_cast<size_t>(size));
    }
}

bool Ovsdb::ReceivedWhole()
{
    for (; looked < answer.size(); looked++) {
        const char c = answer[looked];
        if (inText) {
            inText = escaped || c != '"';
            escaped = !escaped && c == '\\';
        } else if (c == '"') {
            inText = true;
        } else if (c == '{' || c == '[') {
            depth++;
        } else if (c == '}' || c == ']') {
            depth--;
        }
    }
    return depth == 0 && !answer.empty();
}

OvsdbSwitch CreateOvsdbSwitch(Ovsdb &server, const std::string &name, unsigned ports)
{
    std::string operations;
    std::string list;
    for (unsigned i = 0; i < ports; i++) {
        const std::string port = name + "-port" + std::to_string(i);
        const std::string number = std::to_string(i);
        operations += R"({"op":"insert","table":"Port","uuid-name":"p)" + number + R"(","row":{"name":")" +
                      port + R"(","interfaces":["named-uuid","i)" + number + R"("]}},)";
        operations += R"({"op":"insert","table":"Interface","uuid-name":"i)" + number +
                      R"(","row":{"name":")" + port + R"("}},)";
        list += (i ? "," : "") + (R"(["named-uuid","p)" + number + R"("])");
    }
    operations += R"({"op":"insert","table":"Bridge","uuid-name":"b","row":{"name":")" + name +
                  R"(","ports":["set",[)" + list + R"(]]}},)";
    operations += R"({"op":"mutate","table":"Open_vSwitch","where":[],"mutations":[["bridges","insert",)"
                  R"(["set",[["named-uuid","b"]]]]]})";
    const std::vector<std::string> ids = InsertedIds(server.Transact(operations));
    OvsdbSwitch created = {ids.back(), {}};
    for (size_t i = 0; i + 1 < ids.size(); i += 2)
        created.ports.push_back(ids[i]);
    return created;
}

void DestroyOvsdbSwitch(Ovsdb &server, const OvsdbSwitch &removed)
{
    server.Transact(R"({"op":"mutate","table":"Open_vSwitch","where":[],"mutations":[["bridges","delete",)"
                    R"(["set",[["uuid",")" +
                    removed.bridge + R"("]]]]]})");
}
