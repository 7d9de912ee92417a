#include "abi/host.h"

extern const HostInterface kInterface;
const HostInterface kInterface{};
