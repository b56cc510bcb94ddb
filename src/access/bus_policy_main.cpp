// Writes the bus policy file generated from the role table (build step): vexa_bus_policy OUTPUT

#include <cstdio>
#include <fstream>

#include "access/roles.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: vexa_bus_policy OUTPUT\n");
        return 2;
    }
    std::ofstream out(argv[1], std::ios::trunc);
    out << Vexa::Access::busPolicy();
    out.close();
    if (!out) {
        std::fprintf(stderr, "vexa_bus_policy: could not write %s\n", argv[1]);
        return 1;
    }
    return 0;
}
