#!/usr/bin/env bash
# Installs the build into a temporary prefix and runs the installed tree as an operator would:
# metadata_storage with the installed sample settings, then the generic host with the module.
# Each must answer ping and exit 0 on SIGTERM, using only what was installed. A program of another
# CMake project, built against the installed client package, and the installed command-line
# client must then get answers from the installed service.
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
         share/metadata_storage/sample_packets.json \
         lib/systemd/system/metadata_storage.service lib/cmake/Kest/KestConfig.cmake \
         bin/metadata_storage_client lib/libkest_cloud_storage_metadata_client.so \
         lib/cmake/KestMetadataStorageClient/KestMetadataStorageClientConfig.cmake \
         include/kest/cloud/storage/api/client_factory.h; do
  [ -e "$prefix/$f" ] || { echo "missing from the install: $f"; exit 1; }
done
grep -q "^ExecStart=$prefix/bin/metadata_storage " "$prefix/lib/systemd/system/metadata_storage.service" \
  || { echo "the unit does not run the installed program"; exit 1; }
# Nothing of the build tree may be needed at run time.
if readelf -d "$prefix"/bin/* "$prefix"/lib/*.so | grep -E 'R(UN)?PATH' | grep -q "$build"; then
  echo "installed files still search the build tree"; exit 1
fi

# Another project: find_package and the one target, with the build's compiler and sanitizers.
consumer=$work/consumer
mkdir -p "$consumer"
cat >"$consumer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(metadata_storage_consumer LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 23)
find_package(KestMetadataStorageClient REQUIRED)
add_executable(consumer main.cpp)
target_link_libraries(consumer PRIVATE kest::metadata_storage_client)
CMAKE
cat >"$consumer/main.cpp" <<'CPP'
#include <iostream>

#include <kest/cloud/storage/api/client_factory.h>

using namespace kest::cloud::storage::metadatadb;

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    const auto client = api::ClientFactory::instance().create(kest::utils::Url(argv[1]));
    const auto [status, errors] = client->getErrorsSync({}, {ZuUuid::createUuid()});
    std::cout << "save errors: " << static_cast<int>(status) << ", " << errors.size() << " devices\n";
    return status == 200 && errors.empty() ? 0 : 1;
}
CPP
compiler=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")
case "$(sed -n 's/^KEST_SANITIZE:[A-Z]*=//p' "$build/CMakeCache.txt")" in
  address) sanitize="-fsanitize=address,undefined" ;;
  thread) sanitize="-fsanitize=thread" ;;
  *) sanitize="" ;;
esac
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S "$consumer" -B "$consumer/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="$sanitize" "${launcher[@]}" \
  >"$work/consumer.log" 2>&1 && cmake --build "$consumer/build" >>"$work/consumer.log" 2>&1 \
  || { echo "the client package does not build another project:"; cat "$work/consumer.log"; exit 1; }

# After the ping: the other project's program and the command-line client, against the service.
check_clients() {
  local url=http://127.0.0.1:$1
  env -u LD_LIBRARY_PATH "$consumer/build/consumer" "$url" \
    || { echo "the consumer failed against $url"; return 1; }
  local answer
  answer=$(env -u LD_LIBRARY_PATH "$prefix/bin/metadata_storage_client" errors --url "$url") \
    || { echo "metadata_storage_client failed against $url"; return 1; }
  [ "$answer" = "[]" ] || { echo "metadata_storage_client errors: $answer"; return 1; }
}

# Runs "$@" in the background and pings it; SIGTERM must end it with exit code 0.
run_and_ping() {
  local name=$1; shift
  local log=$work/$name.log
  # Made before the program starts, which would otherwise race the first look at it.
  : >"$log"
  "$@" >"$log" 2>&1 &
  pid=$!
  local port=""
  for _ in $(seq 1 600); do
    port=$(sed -n 's/.*HTTP server is listening on { 127\.0\.0\.1:\([0-9]*\) }.*/\1/p' "$log" | head -n1)
    [ -n "$port" ] && break
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.05
  done
  if [ -z "$port" ]; then echo "$name did not start:"; cat "$log"; exit 1; fi
  local status
  status=$(curl -s -o /dev/null -w '%{http_code}' -X POST "http://127.0.0.1:$port/metadataDb/ping")
  [ "$status" = 200 ] || { echo "$name: ping answered $status"; cat "$log"; exit 1; }
  check_clients "$port" || { cat "$log"; exit 1; }
  kill -TERM "$pid"
  local code=0
  wait "$pid" || code=$?
  pid=""
  [ "$code" = 0 ] || { echo "$name: exit code $code after SIGTERM"; cat "$log"; exit 1; }
  echo "$name: ping 200, clients answered, SIGTERM exit 0"
}

mongo="--MongoDb/uri=mongodb://127.0.0.1:1/?serverSelectionTimeoutMS=100"
run_and_ping metadata_storage env -u LD_LIBRARY_PATH "$prefix/bin/metadata_storage" \
  -c "$prefix/etc/metadata_storage/metadata_storage.conf" --http/listenOn=127.0.0.1:0 \
  --dataDir="$work/data1" "$mongo"
run_and_ping kest_service_host env -u LD_LIBRARY_PATH "$prefix/bin/kest_service_host" \
  "$prefix/lib/libkest_cloud_storage_metadata_service.so" \
  -c "$prefix/etc/metadata_storage/metadata_storage.conf" --http/listenOn=127.0.0.1:0 \
  --dataDir="$work/data2" "$mongo"
