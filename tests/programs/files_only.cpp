// A program that uses files and no sockets: the library's start-up must have made its files binary all the same.

#include <cstdio>

#include "core/files/core_wrapper.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    std::FILE* file = NS_CORE::Wrapper::fopen(argv[1], "w");
    if (file == nullptr) return 3;
    std::fputs("line\n", file);
    const long written = std::ftell(file);
    std::fclose(file);
    NS_CORE::Wrapper::unlink(argv[1]);
    return written == 5 ? 0 : 1;
}
