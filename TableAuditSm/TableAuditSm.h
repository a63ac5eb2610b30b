#pragma once

// The table audit: the audit manager that the table managers register their tables with, the
// per-table audits, flagging of keys that keep failing, and the record of failures.

#include "TableAuditSm/AuditTypes.h"
#include "TableAuditSm/FailedAuditStatus.h"
#include "TableAuditSm/FlagSm.h"
#include "TableAuditSm/MatAdtSelTableAudit.h"
#include "TableAuditSm/TableAudit.h"
#include "TableAuditSm/TableAuditMgrSm.h"
