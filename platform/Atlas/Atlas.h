#pragma once

// The entity manager: mounts shared tables by path, type name and mode.

#include "Atlas/EntityManager.h"
