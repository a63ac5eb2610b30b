#pragma once

// The object framework: shared pointers, entities with notifiees, time, value types with
// their printed form, enumerations, link queues, directories and the type registry.

#include "Orb/Dir.h"
#include "Orb/Entity.h"
#include "Orb/Enum.h"
#include "Orb/LinkQueue.h"
#include "Orb/Notifiee.h"
#include "Orb/Parser.h"
#include "Orb/Ptr.h"
#include "Orb/Time.h"
#include "Orb/TypeRegistry.h"
#include "Orb/Value.h"
