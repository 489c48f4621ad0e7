// The IPv4 host-route module.
#pragma once

#include "host/IntfAddresses.h"
#include "host/NeighborEntries.h"
#include "host/PrefixList.h"
#include "host/ReceiveRoutes.h"
#include "host/RouteSm.h"
#include "host/RouteSmRoot.h"
#include "host/RouteWriter.h"
