// Property keys that a bundle stores as one byte: the position in this list, counted from 1. The list is a
// part of the host's format: new keys are added at its end, and no key is removed.
#pragma once

#include <string_view>

namespace vshost {

inline constexpr std::string_view KNOWN_KEYS[] = {
    "com.talpex.common.port.volatile.status",
    "com.talpex.common.port.connectid",
    "com.talpex.common.port.alias",
    "com.talpex.common.port.block",
    "com.talpex.common.port.statistics",
    "com.talpex.port.extraConfig.vnic.external.id",
    "com.talpex.vswitch.port.vlan",
    "com.talpex.vswitch.port.vlanNestedTag",
    "com.talpex.vswitch.port.priority",
    "com.talpex.vswitch.port.security",
    "com.talpex.vswitch.port.extraEthFRP",
    "com.talpex.vswitch.port.macManagement",
    "com.talpex.vswitch.port.mirrorSessions",
    "com.talpex.vswitch.port.teaming.policy",
    "com.talpex.vswitch.port.teaming.override",
    "com.talpex.vswitch.port.logicalswitch.teaming",
    "com.talpex.vswitch.port.txUplink",
    "com.talpex.common.alias",
    "com.talpex.common.version",
    "com.talpex.common.opaqueDvs",
    "com.talpex.common.uplinkPorts",
    "com.talpex.common.host.portset",
    "com.talpex.common.host.uplinkPorts",
    "com.talpex.etherswitch.mtu",
    "com.talpex.vswitch.mtu",
    "com.talpex.vswitch.multicastFilter",
    "com.talpex.vswitch.macLearning",
    "com.talpex.vswitch.macLearning.learnStatic",
    "com.talpex.vswitch.pvlanMap",
    "com.talpex.vswitch.teaming",
    "com.talpex.vswitch.logicalswitch.teaming",
    "com.talpex.vswitch.uplinkMirrorSessions",
};

}
