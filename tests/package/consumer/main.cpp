// A program outside the tree: it has only what the installed package gives it.
#include "Lox/IpAddr.h"
#include <cstdlib>

int main() {
    Lox::IpAddr const group("239.1.1.1");
    return group.isMulticast() && group.stringValue() == "239.1.1.1" ? EXIT_SUCCESS : EXIT_FAILURE;
}
