#pragma once

/// The code under test.
void runCheckout();
