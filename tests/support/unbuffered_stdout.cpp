// Preloaded into a program whose standard output is a pipe, so that what it
// prints reaches the reader at once, as on a terminal. Unlike stdbuf's library
// this one is built for the target, so it also works for emulated programs.
#include <cstdio>

namespace {

__attribute__((constructor)) void unbuffer_stdout() {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
}

}  // namespace
