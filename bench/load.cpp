// The time that the dynamic linker takes to load the library, beside an empty shared object. The library's
// dependencies are loaded already: libc, and a platform whose calls do nothing.
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

namespace {

void Load(benchmark::State &state, const char *path)
{
    for (auto _ : state) {
        void *object = dlopen(path, RTLD_NOW);
        if (!object) {
            fprintf(stderr, "%s\n", dlerror());
            exit(1);
        }
        dlclose(object);
    }
}

}

BENCHMARK_CAPTURE(Load, library, LIBRARY)->Iterations(500);
BENCHMARK_CAPTURE(Load, empty, EMPTY)->Iterations(500);
BENCHMARK_MAIN();
