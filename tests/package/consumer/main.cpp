// A program outside the tree: it has only what the installed package gives it. The root machine's
// header draws in most of the others.
#include "IgmpHostProxy/IgmpHostProxySm.h"
#include "IgmpHostProxy/SourceGroup.h"

#include <cstdlib>

// Names of the program's own: no list of attributes has kept them.
static int STATUS() { return EXIT_SUCCESS; }
static int CONFIG() { return STATUS(); }
static int IGMP_HOST() { return CONFIG(); }

int main() {
    IgmpHostProxy::SourceGroup const pair(Lox::IpAddr("10.0.0.1"), Lox::IpAddr("239.1.1.1"));
    auto const read = IgmpHostProxy::strepToValue(valueToStrep(pair));
    return read == pair ? IGMP_HOST() : EXIT_FAILURE;
}
