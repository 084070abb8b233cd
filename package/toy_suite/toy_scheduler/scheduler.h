#pragma once

#include <windows.h>
#include <unknwn.h>

namespace toy_scheduler {

// The class factory of the service object; the caller's reference.
IClassFactory* make_factory();

} // namespace toy_scheduler
