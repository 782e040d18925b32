#!/bin/bash
# A living gateway on this workstation: builds ovani, raises a simulated gateway, connects devices by cable and Wi-Fi
# and shows them live until Ctrl-C. Nothing is left behind but a page that tells how it was.
set -euo pipefail

usage() {
    cat <<'USAGE'
usage: ./run.sh [OPTION]...

  --once            without a terminal: wait until all devices are there and right, print them, unplug one, see it
                    retired; have the Wi-Fi station roam; start the daemon late and see it find them; have the
                    station leave; print the hosts at each step; exit 0, or 1 with the reason and the end of the log
  --operator NAME   operator profile: one of tools/samples (ct)
  --record FILE     write down what the daemon is told and says, for `ovanictl replay`
  --patience SECS   how long --once waits for a device to become what it should be (30)
  --build DIR       use the programs built there instead of building
  -h, --help        this text

At the end it writes the gateway down as a page for a browser, gateway-OPERATOR.html where the programs are built.

Needs root, for namespaces and for installing what is missing (Debian 12).
USAGE
}

misuse() {
    echo "run.sh: $*" >&2
    exit 2
}

cd "$(dirname "$(realpath "$0")")"
readonly HOSTS=InternetGatewayDevice.LANDevice.1.Hosts.Host.
once=false
operator=ct
patience=30
record=""
build=""
while (($#)); do
    case $1 in
    --once) once=true ;;
    --operator | --record | --patience | --build)
        (($# > 1)) || misuse "$1 needs a value"
        declare "${1#--}=$2"
        shift
        ;;
    -h | --help) usage && exit 0 ;;
    *) misuse "unknown option: $1 (see ./run.sh --help)" ;;
    esac
    shift
done
[[ $operator != */* && -f tools/samples/$operator.conf ]] || misuse "no tools/samples/$operator.conf"
[[ $patience =~ ^[1-9][0-9]{0,5}$ ]] || misuse "--patience is a number of seconds, not '$patience'"
[[ -z $build || -x $build/bin/ovanictl ]] || misuse "no programs in $build/bin"
[[ $(id -u) == 0 ]] || { echo "run.sh: please run me as root" >&2 && exit 1; }

say() { echo "run.sh: $*"; }

if [[ -z $build ]]; then
    build=build/run
    tools/install-packages.sh run
    say "building"
    configured=$(cmake --preset release -B "$build" -DOVANI_TESTS=OFF -DOVANI_BENCH=OFF 2>&1) || {
        echo "$configured" >&2
        exit 1
    }
    cmake --build "$build" --target gateway
fi

# The gateway that `tools/gateway exec` finds by itself, unless there is one already or this is but a check.
export OVANI_GATEWAY=${OVANI_GATEWAY:-/run/ovani-gateway}
if $once || [[ -e $OVANI_GATEWAY ]]; then
    OVANI_GATEWAY+=.$$
fi

come_down() {
    local status=$? job
    trap - EXIT
    trap '' INT TERM HUP
    for job in $(jobs -p); do
        kill "$job" 2>/dev/null || true
        wait "$job" || true # the live table gives the terminal back
    done
    if ((status != 0)) && [[ -d $OVANI_GATEWAY/log ]] && $once; then
        tools/gateway logs >&2 || true
    fi
    tools/gateway down 2>/dev/null || true
    exit "$status"
}
trap come_down EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# --- Devices

readonly LAN=InternetGatewayDevice.LANDevice.1.
# By MAC: what each must become. "客厅电视" comes over the air in GBK; the desktop configures IPv6 by itself.
declare -A expected=(
    [02:00:00:00:01:01]="HostName= DeviceType=PC X_QV_DeviceType= IPAddress=192.168.1.10 AddressSource=STATIC Port=1"
    [02:00:00:00:01:02]="HostName=DESKTOP-7Q2 X_QV_DeviceType=5 IPAddress=192.168.1.100 AddressSource=DHCP Port=2
                         IPv6Address=2001:db8:1::ff:fe00:102 IPv6LLAddress=fe80::ff:fe00:102"
    [02:00:00:00:01:03]="HostName=客厅电视 X_QV_DeviceType=0 IPAddress=192.168.1.101 AddressSource=DHCP Port=3"
    [02:00:00:00:01:04]="HostName=Pixel-8 X_QV_DeviceType=3 IPAddress=192.168.1.102 AddressSource=DHCP Port=4"
    [02:00:00:00:01:05]="HostName=tablet IPAddress=192.168.1.103 AddressSource=DHCP Port=1
                         Layer2Interface=${LAN}WLANConfiguration.1."
)
# shellcheck disable=SC2034 # by its name
declare -A roamed=(
    [02:00:00:00:01:05]="HostName=tablet IPAddress=192.168.1.103 AddressSource=DHCP Port=5
                         Layer2Interface=${LAN}WLANConfiguration.5."
)
# A daemon that starts late finds addresses and ports. Leases it will hear of when they are renewed.
# shellcheck disable=SC2034
declare -A found_late=(
    [02:00:00:00:01:02]="HostName=DESKTOP-7Q2 IPAddress=192.168.1.100 AddressSource=STATIC DeviceType=PC Port=2"
    [02:00:00:00:01:03]="HostName=客厅电视 IPAddress=192.168.1.101 AddressSource=STATIC DeviceType=PC Port=3"
    [02:00:00:00:01:05]="HostName=tablet IPAddress=192.168.1.103 AddressSource=STATIC DeviceType=PC Port=5"
    [02:00:00:00:01:06]="HostName= IPAddress=192.168.1.11 AddressSource=STATIC DeviceType=PC Port=4"
)

plug_all() {
    local pause=$1
    tools/gateway plug 1 printer static 192.168.1.10
    sleep "$pause"
    tools/gateway plug 2 desktop --ipv6 dhcp DESKTOP-7Q2 "MSFT 5.0"
    sleep "$pause"
    tools/gateway plug 3 tv dhcp $'\xbf\xcd\xcc\xfc\xb5\xe7\xca\xd3'
    sleep "$pause"
    tools/gateway plug 4 phone dhcp Pixel-8 android-dhcp-14
    sleep "$pause"
    tools/gateway plug ra0 tablet --mac 02:00:00:00:01:05 dhcp tablet
}

hosts() { tools/gateway exec ovanictl hosts; }

# The parameters of the host object of a MAC, one NAME=VALUE a line; nothing when there is no such object.
host_parameters() {
    tools/gateway exec ovanictl get "$HOSTS" | awk -v mac="$1" -v prefix="$HOSTS" '
        { line = substr($0, length(prefix) + 1)
          instance = line; sub(/\..*/, "", instance)
          sub(/^[0-9]+\./, "", line); sub(/ = /, "=", line)
          of[instance] = of[instance] line "\n"
          if (tolower(line) == "macaddress=" mac) found = instance }
        END { printf "%s", of[found] }'
}

# is_right MAC: says on standard output what is not as it should be.
is_right() {
    local parameters want right=true
    parameters=$(host_parameters "$1")
    for want in ${expected[$1]} Active=1; do
        grep -qxF -- "$want" <<<"$parameters" && continue
        echo "$1: $want expected, there is: $(grep -F -- "${want%%=*}=" <<<"$parameters" || echo "no such host")"
        right=false
    done
    $right
}

# Its object is gone, or says that it has left: that is the operator's choice.
is_retired() {
    local parameters
    parameters=$(host_parameters "$1") || return 1
    [[ -z $parameters ]] || grep -qx Active=0 <<<"$parameters" || { echo "$1: still there" && return 1; }
}

# eventually COMMAND...: until it succeeds, or prints what it said last.
eventually() {
    local end=$((SECONDS + patience)) said
    until said=$("$@"); do
        ((SECONDS < end)) || { echo "$said" >&2 && return 1; }
        sleep 0.1
    done
}

all_right() {
    local mac
    for mac in "${!expected[@]}"; do
        eventually is_right "$mac" || return 1
    done
    hosts
}

# expect NAME: from here on, what the array of that name says.
expect() {
    local mac
    local -n changes=$1
    for mac in "${!changes[@]}"; do
        expected[$mac]=${changes[$mac]}
    done
}

retired() {
    local mac
    for mac in "$@"; do
        unset "expected[$mac]"
        eventually is_retired "$mac" || return 1
    done
    all_right
}

check() {
    say "connecting five devices"
    plug_all 0
    all_right || return 1

    say "unplugging the phone"
    tools/gateway unplug phone
    retired 02:00:00:00:01:04 || return 1

    say "the tablet roams to the other Wi-Fi"
    tools/gateway roam tablet rai0
    expect roamed
    all_right || return 1

    say "a camera comes while the daemon is away"
    tools/gateway kill daemon
    tools/gateway plug 4 camera --mac 02:00:00:00:01:06 static 192.168.1.11
    tools/gateway start daemon
    expect found_late
    all_right || return 1

    say "the tablet and the camera leave"
    tools/gateway unplug tablet
    tools/gateway unplug camera
    retired 02:00:00:00:01:0{5,6} || return 1
    say "who left is retired, the others are as they were"
}

# Its hosts, and when each was there.
report() {
    local page=$build/gateway-$operator.html
    tools/gateway exec ovanictl report >"$page"
    say "how it was: $(realpath "$page")"
}

# In the gateway's own directory at first, which is the same place inside.
start_recording() {
    tools/gateway exec ovanictl record "$OVANI_GATEWAY/recording" 2>"$OVANI_GATEWAY/log/record.log" &
    recorder=$!
    eventually grep -qs recording "$OVANI_GATEWAY/log/record.log" || cat "$OVANI_GATEWAY/log/record.log" >&2
}
has_ended() { [[ $(tail -n 1 "$OVANI_GATEWAY/recording") == *'"end":1'* ]]; }
end_recording() {
    kill "$recorder" && eventually has_ended && cp "$OVANI_GATEWAY/recording" "$record"
}

say "raising the gateway"
if [[ -z $record ]]; then
    tools/gateway up --build "$build" --operator "$operator" --owner $$
else
    tools/gateway up --build "$build" --operator "$operator" --owner $$ --without daemon
    start_recording
    tools/gateway start daemon
fi
if $once; then
    check || { say "not as it should be" >&2 && exit 1; }
    report
    [[ -z $record ]] || end_recording
else
    note="Ctrl-C takes the gateway down. From another terminal: tools/gateway unplug phone, tools/gateway --help"
    [[ $OVANI_GATEWAY == /run/ovani-gateway ]] || note+=" (export OVANI_GATEWAY=$OVANI_GATEWAY first)"
    plug_all 1.5 >>"$OVANI_GATEWAY/log/plug.log" 2>&1 &
    # In the background, so that a signal is heeded at once; Ctrl-C is for the viewer, and it ends with it.
    if [[ -t 0 && -t 1 && ${TERM:-dumb} != dumb ]]; then
        setpriv --pdeathsig TERM tools/gateway exec ovanictl top --note "$note" </dev/tty &
    else
        tools/gateway exec ovanictl events &
    fi
    viewer=$!
    trap : INT
    while kill -0 $viewer 2>/dev/null; do
        wait $viewer || true
    done
    report
    [[ -z $record ]] || end_recording
    echo "The gateway is taken down."
fi
