// The service from the enable check to the end of the process.
#pragma once

// Runs on the main thread until the process is asked to end, then takes everything down in the
// reverse order of its making. Returns the process's exit status.
int runService();
