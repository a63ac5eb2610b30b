#pragma once

// The object framework: shared pointers, entities with notifiees, time, value types with
// their printed form, enumerations, link queues, directories and the type registry.

#include "Orb/Entity.h"
#include "Orb/Notifiee.h"
#include "Orb/Ptr.h"
#include "Orb/Time.h"
