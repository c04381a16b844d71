// Tells the service manager how the agent fares, when it asked to be told (NOTIFY_SOCKET).
#pragma once

#include <string_view>

namespace Agent {

/// Sends an assignment such as "READY=1" or "STOPPING=1". Returns false when the service manager
/// does not listen or has too much to read already; that the agent is ready is then told before the
/// next assignment. Without a service manager nothing happens.
bool serviceNotify(std::string_view assignment);

/// That a reload begins, which "READY=1" ends.
void serviceReloading();

/// Lets the agent open as many descriptors as it may allow itself: each VRF takes several.
void descriptorLimitRaise();

/// Gives up all capabilities but those that the agent needs: CAP_NET_ADMIN, CAP_NET_RAW,
/// CAP_DAC_READ_SEARCH to read its configuration again, whoever owns the file, and, where it has
/// `namespaces` to enter, CAP_SYS_ADMIN. Throws std::system_error.
void capabilitiesLimit(bool namespaces);
/// Whether the agent has a CAP_ number.
bool hasCapability(unsigned capability);

} // namespace Agent
