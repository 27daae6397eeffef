// key_handlers.h -- which handlers the key-combination service calls.
#pragma once

#include "platform/key_combination.h"

// From then on handlers may be added.
void accept_key_handlers();

// Adds a handler, once. False, with a log line, before accept_key_handlers. Any thread.
bool add_key_handler(_KeyComb combination, KeyCombination_Handler handler);

bool any_key_handlers();

// Calls the handlers of a combination that there are at this moment. Holds no lock meanwhile. Main loop's thread.
void call_key_handlers(_KeyComb combination);
