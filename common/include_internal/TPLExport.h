// Visibility of the execution facilities exported by the common library.
#pragma once

#if defined(HXF_COMMON_BUILDING)
#define HXF_TPL_API __attribute__((visibility("default")))
#else
#define HXF_TPL_API
#endif
