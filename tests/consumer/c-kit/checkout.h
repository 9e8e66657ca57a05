#pragma once

/* The code under test. */
void run_checkout(void);
