#include <iostream>

#include <unistd.h>

#include "commands.h"

int main(int argc, char** argv) {
    zulcrypt::Streams io{std::cin, std::cout, std::cerr, isatty(STDIN_FILENO) == 1, STDIN_FILENO};
    return zulcrypt::Dispatch(argc - 1, argv + 1, io);
}
