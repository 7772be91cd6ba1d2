#!/usr/bin/env bash
# Installs the build into a temporary prefix and runs the installed tree as an operator would:
# metadata_storage with the installed sample settings, then the generic host with the module.
# Each must answer ping and exit 0 on SIGTERM, using only what was installed.
#
#   install_tree_test.sh BUILD_DIR
set -euo pipefail
build=$1
work=$(mktemp -d)
pid=""
cleanup() {
  [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null

for f in bin/metadata_storage bin/kest_service_host lib/libkest_cloud_storage_metadata_service.so \
         lib/libkest_utils.so etc/metadata_storage/metadata_storage.conf \
         lib/systemd/system/metadata_storage.service lib/cmake/Kest/KestConfig.cmake; do
  [ -e "$prefix/$f" ] || { echo "missing from the install: $f"; exit 1; }
done
grep -q "^ExecStart=$prefix/bin/metadata_storage " "$prefix/lib/systemd/system/metadata_storage.service" \
  || { echo "the unit does not run the installed program"; exit 1; }
# Nothing of the build tree may be needed at run time.
if readelf -d "$prefix"/bin/* "$prefix"/lib/*.so | grep -E 'R(UN)?PATH' | grep -q "$build"; then
  echo "installed files still search the build tree"; exit 1
fi

# Runs "$@" in the background and pings it; SIGTERM must end it with exit code 0.
run_and_ping() {
  local name=$1; shift
  local log=$work/$name.log
  "$@" >"$log" 2>&1 &
  pid=$!
  local port=""
  for _ in $(seq 1 200); do
    port=$(sed -n 's/.*HTTP server is listening on { 127\.0\.0\.1:\([0-9]*\) }.*/\1/p' "$log" | head -n1)
    [ -n "$port" ] && break
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.05
  done
  if [ -z "$port" ]; then echo "$name did not start:"; cat "$log"; exit 1; fi
  local status
  status=$(curl -s -o /dev/null -w '%{http_code}' -X POST "http://127.0.0.1:$port/metadataDb/ping")
  [ "$status" = 200 ] || { echo "$name: ping answered $status"; cat "$log"; exit 1; }
  kill -TERM "$pid"
  local code=0
  wait "$pid" || code=$?
  pid=""
  [ "$code" = 0 ] || { echo "$name: exit code $code after SIGTERM"; cat "$log"; exit 1; }
  echo "$name: ping 200, SIGTERM exit 0"
}

mongo="--MongoDb/uri=mongodb://127.0.0.1:1/?serverSelectionTimeoutMS=100"
run_and_ping metadata_storage env -u LD_LIBRARY_PATH "$prefix/bin/metadata_storage" \
  -c "$prefix/etc/metadata_storage/metadata_storage.conf" --http/listenOn=127.0.0.1:0 \
  --dataDir="$work/data1" "$mongo"
run_and_ping kest_service_host env -u LD_LIBRARY_PATH "$prefix/bin/kest_service_host" \
  "$prefix/lib/libkest_cloud_storage_metadata_service.so" \
  -c "$prefix/etc/metadata_storage/metadata_storage.conf" --http/listenOn=127.0.0.1:0 \
  --dataDir="$work/data2" "$mongo"
