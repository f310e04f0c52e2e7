#include "accounts/process_registry.h"

namespace corvane {

std::atomic<std::shared_ptr<AccountRegistry>> g_accountRegistry;

}  // namespace corvane
