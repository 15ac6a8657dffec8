// The key-name plug-in interface: the registry record a plug-in fills in and
// the entry point the host calls. Plug-ins and hosts are C++ and share one
// C++ runtime, because the names cross between them as new[] arrays.
#pragma once

#include <cstddef>

// The key-name generator a plug-in supplies: takes a zero-terminated name and
// a flag, returns a null-terminated array of zero-terminated strings (all
// allocated with new[], owned by the caller afterwards), or null.
typedef char** (*mfKeynameGeneratorFn)(const char* name, bool flag);

// The plug-in registry record: a row of pointer-sized fields, of which the
// fourteenth is the key-name generator.
struct markforgeRegistryRecord {
    void* reserved[13];
    mfKeynameGeneratorFn mfPluginKeynameGenerator;
};
static_assert(offsetof(markforgeRegistryRecord, mfPluginKeynameGenerator) == 13 * sizeof(void*),
              "the generator is field 13 of the registry record");
static_assert(sizeof(mfKeynameGeneratorFn) == sizeof(void*), "registry fields are pointer-sized");

// The entry point every plug-in exports: fills in `registry` (at least its
// generator field) using `argument` (the host's --plugin-arg, or null) and
// returns 0; any other result refuses the load.
#define MARKFORGE_PLUGIN_INIT_SYMBOL "markforge_plugin_init"
typedef int (*markforgePluginInitFn)(markforgeRegistryRecord* registry, const char* argument);
extern "C" int markforge_plugin_init(markforgeRegistryRecord* registry, const char* argument);
