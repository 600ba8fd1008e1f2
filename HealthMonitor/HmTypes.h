#pragma once

/// The records that the rooms of the agent share:
///     HmCommonData.h     enumerations, counters and marks, and CommonData, which every reactor holds
///     HmHostModel.h      the backlogs and the model of the engine's host groups
///     HmQueueRecords.h   what crosses the two queues between threads
#include "HealthMonitor/HmCommonData.h"
#include "HealthMonitor/HmHostModel.h"
#include "HealthMonitor/HmQueueRecords.h"
