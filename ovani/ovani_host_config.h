// What management sets on hosts: alias, bandwidth ceilings, and the two speed-limit policies.
#pragma once

inline constexpr char OVANI_HOSTALIAS_OBJ_URL[] = "InternetGatewayDevice.LANDevice.1.Hosts.HostAliases.";
inline constexpr char OVANI_SPEEDLIMIT_PATH[] =
    "InternetGatewayDevice.LANDevice.1.LANHostConfigManagement.X_QV_SpeedLimit";
inline constexpr char OVANI_UP_SPEEDLIMIT_PATH[] =
    "InternetGatewayDevice.LANDevice.1.LANHostConfigManagement.X_QV_UpSpeedLimit";
inline constexpr char OVANI_DOWN_SPEEDLIMIT_PATH[] =
    "InternetGatewayDevice.LANDevice.1.LANHostConfigManagement.X_QV_DownSpeedLimit";

// One line of words: upstream limit, downstream limit, and 1 to 10 MAC texts the limits are for.
inline constexpr char SPEEDLIMIT_MACLIST_FILE[] = "/qvconf/speedlimit_maclist";

// Applies one parameter to the host object whose path is `tempurl` (text), and announces the host whatever
// the parameter. Returns false for a parameter that is not applied; true otherwise, also for null arguments.
bool system_set_lanhost_config_param(const char *keystr, const char *value, void *tempurl);

// Puts a host's alias into the alias object of its MAC, made when there is none among the first 64. R_OK, or
// -1.
int set_hostalias_process(const char *hostalias, const char *tmpurl);

// Set one of the two ceilings of the host whose object path is given, and keep the other.
void set_maxusbandwidth_process(const char *value, const char *tempurl);
void set_maxdsbandwidth_process(const char *value, const char *tempurl);

// Limits one host, given in lower-case colon form, if the list file names it.
void handler_speedlimit_config(const char *new_mac);

// Limits the built-in devices, if the store says so. Once, at start-up.
void ovani_speedlimit_all();
