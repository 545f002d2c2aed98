// Looking at a host and undoing a change: the functions of vshost.h that liborkPublic.so exports, which are
// documented there.
#pragma once

#include <vshost.h>

#include <cstddef>

namespace vshost {

int ListPorts(const char *switchId, struct vshost_port *ports, size_t capacity, size_t *count);
int RestorePort(const char *switchId, const struct vshost_port *port);
int ListPropertyNames(const char *switchId, const char *portId, struct vshost_property_name *names,
                      size_t capacity, size_t *count);
int ListPolicyFaults(const char *switchId, struct vshost_policy_fault *faults, size_t capacity,
                     size_t *count);
int ListHostNics(struct vshost_nic *nics, size_t capacity, size_t *count);

}
