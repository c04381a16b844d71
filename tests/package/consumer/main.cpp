// A program outside the tree: it has only what the installed package gives it. The root machine's
// header draws in most of the others.
#include "IgmpHostProxy/IgmpHostProxySm.h"
#include "IgmpHostProxy/SourceGroup.h"

#include <cstdlib>

int main() {
    IgmpHostProxy::SourceGroup const pair(Lox::IpAddr("10.0.0.1"), Lox::IpAddr("239.1.1.1"));
    auto const read = IgmpHostProxy::strepToValue(valueToStrep(pair));
    return read == pair ? EXIT_SUCCESS : EXIT_FAILURE;
}
