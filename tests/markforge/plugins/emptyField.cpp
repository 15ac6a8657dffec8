// Test plug-in: the entry point succeeds but leaves the generator empty.
#include "markforgePlugin.h"

extern "C" __attribute__((visibility("default"))) int markforge_plugin_init(markforgeRegistryRecord*, const char*)
{
    return 0;
}
