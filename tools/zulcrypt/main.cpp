#include <iostream>

#include "commands.h"

int main(int argc, char** argv) {
    zulcrypt::Streams io{std::cin, std::cout, std::cerr};
    return zulcrypt::Dispatch(argc - 1, argv + 1, io);
}
