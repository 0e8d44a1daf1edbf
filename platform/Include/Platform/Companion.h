#pragma once
// The one export of libTellarPlatform.so, the optional library through which all modules of a
// process share one logger. The map-service library looks it up at run time; a host that links
// it opens, configures and closes the log the libraries write to.
#include "Core/Export.h"
#include "Platform/Interfaces/IAppLogger.h"

// The process's logger, kept alive by the library (the caller takes no reference), or null
// once the library is tearing down at exit.
TELLAR_API Platform::Interfaces::IAppLogger* Platform_GetAppLoggerInstance();
