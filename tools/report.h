// A gateway as one page for a browser, or as a picture. Neither asks the network for anything nor runs a
// script, and both follow the reader's choice of light or dark.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/doctor.h"
#include "tools/history.h"

struct ReportConnection {
    std::string kind; // "IP" or "PPP"
    std::string services;
    int vlan = 0;
    int priority = 0;
    bool bridged = false;
    bool enabled = false;
};

struct ReportBinding {
    int lan_vlan = 0;
    int wan_vlan = 0;
};

struct ReportPort {
    std::string name;
    std::optional<bool> link; // none where it has no interface
    std::vector<ReportBinding> bindings;
};

struct ReportHost {
    std::string name; // any bytes; empty where it has none, as are the others
    std::string mac;
    std::string address;
    std::string ipv6;
    std::string type;
    std::string port; // a ReportPort's name
    std::string since;
    bool on_line = false;
};

struct Report {
    std::string title;
    std::string time;
    std::vector<ReportConnection> connections;
    std::vector<ReportPort> ports;
    std::vector<ReportHost> hosts;
    std::vector<Finding> findings;
    History history;
    std::vector<Stay> stays;
    int64_t since = 0;       // of the time line, on the wall clock
    std::string no_timeline; // why there is none
};

std::string report_page(const Report &report);    // HTML
std::string report_picture(const Report &report); // SVG
