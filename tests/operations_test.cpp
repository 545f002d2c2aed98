// Every operation is exported, makes the documented calls, refuses null pointers and unknown aliases, leaves
// its outputs as documented when it fails, and leaks nothing.
#include <dlfcn.h>
#include <set>

#include "tests/operations.h"

namespace {

class Every : public HostTest {
protected:
    void SetUp() override { vshost_shell_in_process(1); }
};

TEST_F(Every, OperationIsInTheTableAndExported)
{
    std::set<std::string> names;
    void *library = dlopen("libvswitchctl.so.1", RTLD_NOLOAD | RTLD_NOW);
    ASSERT_TRUE(library);
    for (const Operation &operation : Operations()) {
        names.insert(operation.name);
        EXPECT_TRUE(dlsym(library, operation.name.c_str())) << operation.name;
    }
    EXPECT_EQ(names.size(), 114u);
    dlclose(library);
    StartHost();
}

TEST_F(Every, OperationSucceedsWithItsCalls)
{
    for (const Operation &operation : Operations()) {
        SCOPED_TRACE(operation.name + ": " + operation.calls);
        StartPreparedHost(operation);
        EXPECT_EQ(Invoke(operation), STATUS_OK);
        EXPECT_EQ(Trace(), operation.calls);
        ExpectNothingLeft();
    }
}

TEST_F(Every, RequiredPointerIsTestedFirst)
{
    StartPreparedHost(Operations().front());
    const uint64_t before = vshost_fingerprint();
    for (const Operation &operation : Operations()) {
        for (size_t i = 0; i < operation.arguments.size(); i++) {
            if (!operation.arguments[i].IsRequired()) continue;
            SCOPED_TRACE(operation.name + ", argument " + std::to_string(i));
            EXPECT_EQ(Invoke(operation, {nullptr, i}), STATUS_BAD_PARAM);
            EXPECT_EQ(vshost_call_count(), 0u);
        }
    }
    EXPECT_EQ(vshost_fingerprint(), before);
}

TEST_F(Every, UnknownAliasIsRefused)
{
    StartPreparedHost(Operations().front());
    const uint64_t before = vshost_fingerprint();
    for (const Operation &operation : Operations()) {
        bool takesAlias = false;
        for (const Argument &argument : operation.arguments)
            takesAlias |= argument.kind == Argument::Kind::ALIAS;
        if (!takesAlias) continue;
        SCOPED_TRACE(operation.name);
        EXPECT_EQ(Invoke(operation, {"unknown"}), operation.unknownAlias);
        EXPECT_EQ(Trace(), "");
    }
    EXPECT_EQ(vshost_fingerprint(), before);
}

}
