// cdsctl: create, fill, inspect and change a data store file.
#include "cdsctl.h"

int main(int argc, char** argv) {
    std::vector<tk_string> args(argv + 1, argv + argc);
    return CCdsctl().run(args);
}
