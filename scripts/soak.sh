#!/usr/bin/env bash
# The host against what can land in shared memory, at length: the shared-memory fuzz on the
# reader's and the writer's side, damage injected into a live host's segments while a
# publisher churns, and publishers and hosts killed at random with recovery checked after each.
# Prints one line per figure with its target. Sizes (defaults are the full soak):
#   FUZZ=1000000 mutations per side, FAULT_ROUNDS=100 faults of each kind,
#   PUB_KILLS=100 publisher kills, HOST_KILLS=20 host kills, SEED=<n> to repeat a run.
set -uo pipefail
cd "$(dirname "$0")/.."
fuzz="${FUZZ:-1000000}"
faultRounds="${FAULT_ROUNDS:-100}"
pubKills="${PUB_KILLS:-100}"
hostKills="${HOST_KILLS:-20}"
seed="${SEED:-$RANDOM$RANDOM}"
jobs="${JOBS:-2}"

asan=build/asan
release=build/release
cmake -S . -B "$asan" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCHIP_SANITIZE=ON >/dev/null
cmake -S . -B "$release" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCHIP_TESTS=OFF -DCHIP_BENCH=ON \
  >/dev/null
nice cmake --build "$asan" -j"$jobs" --target VaultTest >/dev/null || exit 1
nice cmake --build "$release" -j"$jobs" --target slicehost slicepub SliceFaultInjection \
  >/dev/null || exit 1
export FLASHLOG_DISABLE=1

figure() { # NAME VALUE [TARGET OK]
  if [ $# -gt 2 ]; then
    if [ "$4" = 1 ]; then echo "figure: $1 = $2 (target $3) met"; else echo "figure: $1 = $2 (target $3) NOT MET"; fi
  else
    echo "figure: $1 = $2"
  fi
}

echo "soak: seed $seed, fuzz $fuzz per side, $faultRounds faults of each kind," \
  "$pubKills publisher kills, $hostKills host kills"

# 1. Fuzz: a crash or a hang ends the test binary (a hang by the timeout).
crashes=0
hangs=0
for side in Reader Writer; do
  VAULT_FUZZ_ITERATIONS="$fuzz" VAULT_FUZZ_SEED="$seed" timeout 3600 \
    "$asan/platform/Vault/VaultTest" --gtest_filter="*RandomlyDamagedSegmentsNeverCrash*$side" \
    >"/tmp/soak-fuzz-$side.log" 2>&1
  rc=$?
  if [ $rc -eq 124 ]; then hangs=$((hangs + 1)); elif [ $rc -ne 0 ]; then crashes=$((crashes + 1)); fi
done
figure "fuzz mutations" $((2 * fuzz)) ">= 1000000" $([ $((2 * fuzz)) -ge 1000000 ] && echo 1 || echo 0)
figure "fuzz crashes" "$crashes" 0 $([ "$crashes" -eq 0 ] && echo 1 || echo 0)
figure "fuzz hangs" "$hangs" 0 $([ "$hangs" -eq 0 ] && echo 1 || echo 0)

# 2. Damage injected into a live host while a publisher churns: garbage, index, truncation,
# foreign owner and lying sizes, each $faultRounds times.
"$release/SliceSystem/SliceFaultInjection" --rounds "$faultRounds" --seed "$seed" \
  >/tmp/soak-faults.log 2>&1
grep -E '^figure:|^faultinject: (OK|FAILED)' /tmp/soak-faults.log

# 3. Kills: a publisher killed at a random moment, then one that runs to the end (its exit
# status says every status equals its configuration); now and then the host too.
root="soak-$$"
pub=(--root "$root" --prefixes synthetic --table ipv4_host:2000 --table acl_ingress:500
  --quiet --timeout 60)
host() {
  "$release/tools/slicehost/slicehost" --root "$root" --status-interval 0 >/dev/null 2>&1 &
  hostPid=$!
}
host
sleep 0.5
recovered=0
hostDeaths=0
hostKilled=0
every=$(((pubKills + hostKills - 1) / (hostKills > 0 ? hostKills : 1)))
for ((i = 1; i <= pubKills; i++)); do
  "$release/tools/slicepub/slicepub" "${pub[@]}" --seed "$i" >/dev/null 2>&1 &
  p=$!
  sleep "0.$((RANDOM % 9 + 1))"
  kill -9 "$p" 2>/dev/null
  wait "$p" 2>/dev/null
  if [ "$hostKilled" -lt "$hostKills" ] && [ $((i % every)) -eq 0 ]; then
    kill -9 "$hostPid" 2>/dev/null
    wait "$hostPid" 2>/dev/null
    hostKilled=$((hostKilled + 1))
    host
    sleep 0.3
  fi
  if ! kill -0 "$hostPid" 2>/dev/null; then
    hostDeaths=$((hostDeaths + 1))
    host
    sleep 0.3
  fi
  "$release/tools/slicepub/slicepub" "${pub[@]}" --seed "$i" >/dev/null 2>&1 && recovered=$((recovered + 1))
done
kill -TERM "$hostPid" 2>/dev/null
wait "$hostPid" 2>/dev/null
left=$(find /dev/shm -maxdepth 1 -name "$root.*" | wc -l)
figure "publisher kills" "$pubKills"
figure "host kills" "$hostKilled" "$hostKills" $([ "$hostKilled" -eq "$hostKills" ] && echo 1 || echo 0)
figure "recoveries with every status equal to its configuration" "$recovered" "$pubKills" \
  $([ "$recovered" -eq "$pubKills" ] && echo 1 || echo 0)
figure "unexpected host deaths" "$hostDeaths" 0 $([ "$hostDeaths" -eq 0 ] && echo 1 || echo 0)
figure "segments left behind" "$left" 0 $([ "$left" -eq 0 ] && echo 1 || echo 0)
find /dev/shm -maxdepth 1 -name "$root.*" -delete
