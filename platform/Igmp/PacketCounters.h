// The packets that an IGMP host counts, named once: the engine that counts them, the record that
// shows them, and the machine that mirrors them all expand this list.
#pragma once

/// In the order in which records show them. SHOWN(type, name, Name) are those that the status of
/// the interface shows too, as they are; HOST(type, name, Name) are the host's own. Queries and
/// reports received count once they are found valid, repeats included; a leave is no report. A
/// query counts under the version that it is of (RFC 3376, 7.1), whatever version the host speaks.
/// They wrap around.
#define IGMP_PACKET_COUNTERS(SHOWN, HOST)                                                          \
    SHOWN(std::uint32_t, v1QueryReceived, V1QueryReceived)                                         \
    SHOWN(std::uint32_t, v1ReportsSent, V1ReportsSent)                                             \
    HOST(std::uint32_t, v12ReportReceived, V12ReportReceived)                                      \
    SHOWN(std::uint32_t, v2GeneralQueryReceived, V2GeneralQueryReceived)                           \
    SHOWN(std::uint32_t, v2GroupQueryReceived, V2GroupQueryReceived)                               \
    SHOWN(std::uint32_t, v2ReportsSent, V2ReportsSent)                                             \
    HOST(std::uint32_t, v2LeavesSent, V2LeavesSent)                                                \
    SHOWN(std::uint32_t, v3GeneralQueryReceived, V3GeneralQueryReceived)                           \
    SHOWN(std::uint32_t, v3GroupQueryReceived, V3GroupQueryReceived)                               \
    SHOWN(std::uint32_t, v3GroupSourceQueryReceived, V3GroupSourceQueryReceived)                   \
    HOST(std::uint32_t, v3ReportReceived, V3ReportReceived)                                        \
    HOST(std::uint32_t, v3CurrentStateReportSent, V3CurrentStateReportSent)                        \
    HOST(std::uint32_t, v3StateChangeReportSent, V3StateChangeReportSent)

/// For whoever wants one kind alone.
#define IGMP_NO_COUNTER(type, name, Name)
