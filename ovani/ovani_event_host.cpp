#include "ovani/ovani_event_host.h"

#include <cstring>
#include <strings.h>

bool is_lan_bridge(const char *brname)
{
    return strcasecmp(brname, OVANI_BR_NAME) == 0;
}

void describe_host(host_node &host, HostDescription &description)
{
    copy_text(description.lease, decimal_text(static_cast<int>(host.LeaseTimeRemaining)).data());
    copy_text(description.ack_time, "");
    copy_text(description.active, "1");
    description.mac = mac_bare_text(host.mac);
    description.record = {
        .action = "ADD",
        .AckTime = description.ack_time,
        .LeaseTimeRemaining = description.lease,
        .HostName = host.HostName,
        .MACAddress = description.mac.data(),
        .Active = description.active,
        .X_QV_Option60 = host.option60,
    };
}

void describe_address(const host_node &host, HostDescription &description)
{
    copy_text(description.ip, ovani_ipv4_ltostr(host.ip));
    description.record.IPAddress = description.ip;
    description.record.AddressSource = address_source_text(host);
}

bool place_host(host_node &host, ovani_dhcpd_host_event &record)
{
    record.Layer2Interface = ovani_layer2_interface_get_by_mac(host.mac);
    record.InterfaceType = ovani_port_type_get_by_mac(host.mac);
    if (record.Layer2Interface == nullptr) {
        return false;
    }
    copy_text(host.path, record.Layer2Interface);
    copy_text(host.InterfaceType, record.InterfaceType);
    return true;
}

void refresh_port(host_node &host, const mac_node &station)
{
    host.lanPortNo = station.lanPortNo;
    host.lanPortType = station.lanPortType;
}

void stamp_online_clock(char (&onlineclock)[OVANI_TIME_BUFF_LEN])
{
    ovani_get_curr_time(onlineclock, sizeof onlineclock);
}

void clear_default_host_name(host_node &host)
{
    if (strcmp(host.HostName, OVANI_DEFAULT_HOSTNAME) == 0) {
        copy_text(host.HostName, "");
    }
}
