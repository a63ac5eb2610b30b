#include "Vault/TableTypes.h"

namespace Vault {

TableTypes& TableTypes::instance() {
   static TableTypes types;
   return types;
}

}  // namespace Vault
