/* Linked into every test plugin: marks it as a fixture, which `hxf plugins` leaves out. */
#include "hxf_plugin.h"

HXF_PLUGIN_INFO(hidden, "a fixture of the core's own tests");
