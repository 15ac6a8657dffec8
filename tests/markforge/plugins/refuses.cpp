// Test plug-in: the entry point refuses with 7.
#include "markforgePlugin.h"

extern "C" __attribute__((visibility("default"))) int markforge_plugin_init(markforgeRegistryRecord*, const char*)
{
    return 7;
}
