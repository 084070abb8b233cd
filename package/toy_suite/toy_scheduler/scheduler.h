#pragma once

#include <windows.h>
#include <unknwn.h>

namespace toy_scheduler {

// The class factory of the service object. The caller releases it.
IClassFactory* make_factory();

} // namespace toy_scheduler
