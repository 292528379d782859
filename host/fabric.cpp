#include "host/fabric.h"

namespace {

Fabric g_default_fabric;

}    // namespace

Fabric* g_fabric = &g_default_fabric;
