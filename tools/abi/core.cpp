#include "abi/core.h"

extern const CoreInterface kInterface;
const CoreInterface kInterface{};
