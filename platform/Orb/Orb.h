#pragma once

// The object framework: shared pointers, entities with notifiees and the attributes, counters,
// collections and link queues they are made of, time, value types with their printed form,
// enumerations, directories and the type registry.

#include "Orb/Attribute.h"
#include "Orb/Collection.h"
#include "Orb/Counter.h"
#include "Orb/Dir.h"
#include "Orb/Entity.h"
#include "Orb/Enum.h"
#include "Orb/LinkQueue.h"
#include "Orb/LinkQueueAttribute.h"
#include "Orb/Notifiee.h"
#include "Orb/Parser.h"
#include "Orb/Ptr.h"
#include "Orb/Time.h"
#include "Orb/TypeRegistry.h"
#include "Orb/Value.h"
