#pragma once

#include "platform/EntityManager.h"

/// The mount profile "HealthMonitor": the seven paths of the agent, each with its class and who writes it.
platform::MountProfile healthMonitorProfile();
