// Batches of parameters read from and written to the configuration store, table by table.
#pragma once

// One row: a parameter's name below an object, and the caller's text buffer, filled on a read (at least
// OVANI_VALUE_LEN bytes) and read on a write. A row in which either is null ends the table, also when more
// rows follow.
struct tConfigMap {
    const char *paramName;
    void *datap;
};

// Each reads or writes, in one session of the store, the rows of a table; `url` is the object's path with its
// trailing dot. A row the store refuses is logged and left out, and so is one to write whose value has
// OVANI_VALUE_LEN characters or more. Returns 0, -1 for a null table, or the store's code; buffers of a
// failed read stay as they were.
int load_multi_config_from_xml(tConfigMap *configmap, const char *url);
int load_multi_config_from_xml_with_devfunc(tConfigMap *configmap, const char *url);
int write_multi_config_to_xml(tConfigMap *configMap, const char *url);
int write_multi_config_to_xml_for_host_add(tConfigMap *configMap, const char *url);
