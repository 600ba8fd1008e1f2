# The one list of what comes from Debian 12; sourced by build, test, demo, bench and the package.
# dependencies_install [LIST…] installs what is missing of the named lists and is quiet when nothing is.

dependencies_build=(
   g++ cmake ninja-build ccache pkg-config git ca-certificates
   libevent-dev libfmt-dev libspdlog-dev libyaml-cpp-dev nlohmann-json3-dev libcli11-dev
   libcurl4-openssl-dev libssl-dev libhttp-parser-dev libconcurrentqueue-dev libedit-dev
   libnetfilter-queue-dev libmnl-dev libsqlite3-dev libhiredis-dev
   libgtest-dev libgmock-dev libbenchmark-dev
)
dependencies_demo=( nginx-light openssl python3 procps iproute2 iputils-ping nftables iptables tcpdump )
dependencies_redis=( redis-server )
dependencies_test=( clang-format clang libclang-rt-dev llvm tshark redis-server "${dependencies_demo[@]}" )
dependencies_bench=( haproxy iptables redis-server "${dependencies_demo[@]}" )

dependencies_install() {
   local list name missing=()
   for list in "$@"; do
      local -n packages="dependencies_$list"
      for name in "${packages[@]}"; do
         dpkg-query -W -f '${db:Status-Status}' "$name" 2>/dev/null | grep -qx installed || missing+=( "$name" )
      done
   done
   [ ${#missing[@]} -eq 0 ] && return 0
   if [ "$( id -u )" -ne 0 ]; then
      echo "these Debian packages are missing and only root can install them: ${missing[*]}" >&2
      return 1
   fi
   echo "installing from Debian: ${missing[*]}"
   # A server package must not start its own service on this machine: only our scripts start servers.
   export DEBIAN_FRONTEND=noninteractive
   local policy=/usr/sbin/policy-rc.d made=
   if [ ! -e "$policy" ]; then
      printf '#!/bin/sh\nexit 101\n' >"$policy" && chmod +x "$policy" && made=1
   fi
   local rc=0
   { apt-get update -qq && apt-get install -y -qq --no-install-recommends "${missing[@]}"; } >/tmp/hm-apt.$$ 2>&1 || rc=$?
   [ -n "$made" ] && rm -f "$policy"
   [ $rc -ne 0 ] && cat /tmp/hm-apt.$$ >&2
   rm -f /tmp/hm-apt.$$
   return $rc
}
