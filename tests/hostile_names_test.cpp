// Names that try to make a shell run another command, in every operation that runs commands, with the real
// shell. Any other command would leave a file in the working directory.
#include <algorithm>
#include <filesystem>
#include <set>
#include <unistd.h>

#include "tests/files.h"
#include "tests/fixture.h"

namespace {

constexpr const char *PIECES[] = {
    "$(touch x)",  "`touch x`",
    ";touch x;",   "&touch x&",
    "|touch x",    "&&touch x",
    "||touch x",   "\ntouch x\n",
    ">x",          ">>x",
    "2>x",         "<x",
    "<(touch x)",  "$((1+1))",
    "${IFS}",      "$HOME",
    "$0",          "'",
    "''",          "'\\''",
    "';touch x;'", "'$(touch x)'",
    "\"",          "\";touch x;\"",
    "\\",          "\\'",
    "\\\n",        "*",
    "?",           "[a-z]",
    "{a,b}",       "~",
    "!",           "#",
    " ",           "  ",
    "\t",          "\n",
    "\r",          "\x01",
    "\x1b[2J",     "\x7f",
    "\x80",        "\xff\xfe",
    "\xc3\xa9",    "(",
    ")",           "a b",
    "%s%n%d",      "%",
    "a=b",         ";id",
    "|id",         "&id",
    "$x",          "(id)",
    "if",          "-",
    "--help",      "-e",
    ".",           "..",
    "../x",        "a/b",
    "/",           "$(touch\tx)",
    "`touch\nx`",
};

// A program starts for each name: the ordinary run takes only some, with each piece among them, and fewer
// under a sanitizer. VSWITCHCTL_ALL_NAMES takes all.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t EACH = 5;
#else
constexpr size_t EACH = 3;
#endif

std::set<std::string> Names()
{
    size_t number = 0;
    const size_t each = getenv("VSWITCHCTL_ALL_NAMES") ? 1 : EACH;
    const std::string quotes(60, '\''), longest(127, 'n'), spaces(200, ' ');
    std::set<std::string> names = {
        "",     longest, longest + 'n',    std::string(300, 'n'),   std::string(4000, 'n'),
        quotes, spaces,  spaces + longest, longest.substr(1) + ' ', longest + ' '};
    for (const std::string piece : PIECES) {
        for (const char *pattern : {"P", "aP", "Pa", "aPa", "'P'", "\"P\"", "PP"}) {
            std::string name = pattern;
            for (size_t at = 0; (at = name.find('P', at)) != std::string::npos; at += piece.size())
                name.replace(at, 1, piece);
            if (number++ % each == 0) names.insert(name);
        }
    }
    return names;
}

bool IsNodeName(const std::string &name)
{
    return !name.empty() && name[0] != '-' && name.find('/') == std::string::npos && name != "." &&
           name != "..";
}

bool IsPlain(const std::string &name)
{
    return name.find_first_not_of(
               "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-:@+=,%") ==
           std::string::npos;
}

// Whether a command with this much text around the name runs: a plain name is cut, a quoted name must fit.
bool IsRun(const std::string &name, size_t around)
{
    const auto quotes = static_cast<size_t>(std::count(name.begin(), name.end(), '\''));
    return IsNodeName(name) && (IsPlain(name) || around + name.size() + 2 + 3 * quotes <= 255);
}

// Of the destroy command, the longest command with a portset's name.
constexpr size_t AROUND =
    std::string_view("/bin/tybel -e set /net/portsets//destroy destroy 2> /dev/null").size();

class HostileNames : public LabTest {
protected:
    void SetUp() override
    {
        LabTest::SetUp();
        before = std::filesystem::current_path();
        std::filesystem::current_path(folder.path);
        vshost_shell_in_process(0);
    }

    void TearDown() override
    {
        std::filesystem::current_path(before);
        LabTest::TearDown();
    }

    // The operation ran these commands and no others.
    template<typename Operate>
    static void Expect(VsStatus status, const std::vector<std::string> &commands, Operate operate)
    {
        vshost_record(1);
        EXPECT_EQ(operate(), status);
        std::vector<std::string> words;
        for (const Call &call : Calls(VSHOST_SHELL))
            words.push_back(call.text);
        EXPECT_EQ(words, commands);
        vshost_record(0);
        EXPECT_TRUE(std::filesystem::is_empty(".")) << "another command ran";
    }

    const Folder folder;
    std::filesystem::path before;
};

TEST_F(HostileNames, OfPortsets)
{
    const std::set<std::string> names = Names();
    for (const std::string &name : names) {
        SCOPED_TRACE(testing::PrintToString(name));
        const std::string node = "/net/portsets/" + name;
        const auto command = [&](const std::string &words) { return std::vector{"-e " + words}; };
        const bool made = name.size() <= 127 && IsRun(name, AROUND);
        const auto createdWords = "set /net/create " + name + " 64\n vswitch";
        const auto create = [&] {
            return VSDVS_CreateVSwitch("made", "made-id", name.c_str(), 1, 0, 64, 0, 0);
        };
        if (!made) {
            // The library or the shell refuses the name; the switch is then only in the store.
            const uint64_t unchanged = vshost_fingerprint();
            EXPECT_EQ(create(), STATUS_FAILURE);
            EXPECT_EQ(vshost_fingerprint(), unchanged);
            ASSERT_EQ(DVSZOR_SwitchAdd("made-id", "vswitch", 64, 1), STATUS_OK);
            Write(SWITCH_ALIAS, Text("made"), PORT, "made-id");
            Write(SWITCH_PORTSET, Text(name), PORT, "made-id");
            int32_t mtu = 7;
            EXPECT_EQ(VSDVS_GetMTU("made", &mtu), STATUS_FAILURE);
            EXPECT_EQ(mtu, 7);
            EXPECT_EQ(VSDVS_SetMTU("made", 9000), STATUS_FAILURE);
            // A name that does not fit a command leaves the switch unchanged; otherwise the store loses it.
            const bool formed = IsRun(name.substr(0, 127), AROUND);
            ASSERT_EQ(DVSZOR_SwitchAssociate("made-id"), STATUS_OK);
            const uint64_t stored = vshost_fingerprint();
            EXPECT_EQ(VSDVS_DestroyVSwitch("made"), STATUS_FAILURE);
            EXPECT_EQ(vshost_fingerprint(), formed ? unchanged : stored);
            EXPECT_NE(stored, unchanged);
            EXPECT_EQ(DVSZOR_SwitchRemove("made-id"), formed ? STATUS_NOT_FOUND : STATUS_OK);
            EXPECT_TRUE(std::filesystem::is_empty(".")) << "another command ran";
            continue;
        }
        Expect(STATUS_OK, command(createdWords), create);
        int32_t mtu = 0;
        Expect(STATUS_OK, command("get " + node + "/mtu"), [&] { return VSDVS_GetMTU("made", &mtu); });
        EXPECT_EQ(mtu, 1500);
        const std::vector<std::string> changes = {"-e get " + node + "/mtu", "-e ls " + node + "/uplinks",
                                                  "-e set " + node + "/mtu 9000"};
        Expect(STATUS_OK, changes, [&] { return VSDVS_SetMTU("made", 9000); });
        char info[VS_INFO_SIZE];
        EXPECT_EQ(VSZOR_GetVSInfo(name.c_str(), info), STATUS_OK);
        Expect(STATUS_OK, command("set " + node + "/destroy destroy"),
               [&] { return VSDVS_DestroyVSwitch("made"); });
    }
    EXPECT_GE(names.size(), 60u);
}

TEST_F(HostileNames, OfUplinks)
{
    for (const std::string &name : Names()) {
        if (name.find_first_of("\r\n") != std::string::npos || name.size() > 31) continue;
        SCOPED_TRACE(testing::PrintToString(name));
        const std::string line = name + "\n";
        ASSERT_EQ(vshost_shell_output("ls", line.data(), static_cast<uint32_t>(line.size())), 0);
        std::string uplink = name;
        while (uplink.ends_with('/'))
            uplink.pop_back();
        std::vector<std::string> commands = {"-e get /net/portsets/lab-portset/mtu",
                                             "-e ls /net/portsets/lab-portset/uplinks"};
        if (IsRun(uplink, 60)) commands.push_back("-e set /net/pNics/" + uplink + "/mtu 1600");
        // A blank line does not name an uplink: only the MTU of the portset is set.
        if (name.empty()) commands.push_back("-e set /net/portsets/lab-portset/mtu 1600");
        Expect(name.empty() ? STATUS_OK : STATUS_FAILURE, commands, [] { return VSDVS_SetMTU(LAB, 1600); });
        vshost_clear();
    }
}

}
