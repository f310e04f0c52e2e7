#pragma once

#include <atomic>
#include <memory>

#include "accounts/account_registry.h"

namespace corvane {

// The process-wide account registry: made at start-up, dropped at teardown.
// Users take their own reference with load(), so a request in progress keeps
// the registry alive while teardown clears the pointer; the polling thread
// ends once it finds the pointer empty.
extern std::atomic<std::shared_ptr<AccountRegistry>> g_accountRegistry;

}  // namespace corvane
