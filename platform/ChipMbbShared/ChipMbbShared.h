#pragma once

// Types shared by the feature agents that publish tables and the slice that programs them:
// ADT and selector configurations and their collections, selector member keys, the mount
// information of published tables and the published table directory.

#include "ChipMbbShared/AdtEntryConfig.h"
#include "ChipMbbShared/ConfigTables.h"
#include "ChipMbbShared/DevTgtValue.h"
#include "ChipMbbShared/MatAdtSelTableConfigMountEntry.h"
#include "ChipMbbShared/MountEntryCommon.h"
#include "ChipMbbShared/MountInfo.h"
#include "ChipMbbShared/SelGrpEntryConfig.h"
#include "ChipMbbShared/SelMbrEntryConfig.h"
#include "ChipMbbShared/SelMbrEntryKey.h"
#include "ChipMbbShared/TableConfigMountEntry.h"
#include "ChipMbbShared/TableConfigMountKey.h"
#include "ChipMbbShared/TableInfoDir.h"
