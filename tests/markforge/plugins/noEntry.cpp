// Test plug-in: a shared object without the entry point.
extern "C" __attribute__((visibility("default"))) int markforge_plugin_something_else()
{
    return 0;
}
