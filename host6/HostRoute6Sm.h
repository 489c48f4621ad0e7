// The IPv6 host-route module.
#pragma once

#include "host6/IntfAddresses.h"
#include "host6/NeighborEntries.h"
#include "host6/PrefixList.h"
#include "host6/ReceiveRoutes.h"
#include "host6/RouteSm.h"
#include "host6/RouteSmRoot.h"
#include "host6/RouteWriter.h"
