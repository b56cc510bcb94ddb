#!/bin/bash
# The bus call benchmark's job inside the throwaway container (run-container --run): the daemon as the real
# unit, the raw echo service beside it, and rounds of the caller against both. Output: /e2e/out/run.log.
set -u
exec >/e2e/out/run.log 2>&1
# shellcheck source=/dev/null
. /etc/vexa-e2e.env
seconds=${E2E_PYTEST_ARGS[0]:-3}
rounds=${E2E_PYTEST_ARGS[1]:-3}
tools=$E2E_BUILD_DIR/bench
caller=vexa-bench-caller

systemctl start dbus.service systemd-logind.service || exit 1
# The echo service may be owned by root and called by the same callers as the daemon.
cat >/etc/dbus-1/system.d/ru.kelvo.vexa.echo.conf <<'POLICY'
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
  "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <policy user="root"><allow own="ru.kelvo.vexa.echo"/><allow send_destination="ru.kelvo.vexa.echo"/></policy>
  <policy group="vexa"><allow send_destination="ru.kelvo.vexa.echo"/></policy>
</busconfig>
POLICY
useradd --no-create-home --groups vexa "$caller"
systemctl reload dbus.service
systemctl start vexa.service || exit 1
"$tools/vexa_bench_echo" &
echo_pid=$!
for _ in $(seq 50); do
    busctl --system status ru.kelvo.vexa.echo >/dev/null 2>&1 && break
    sleep 0.1
done

daemon_pid=$(systemctl show -p MainPID --value vexa.service)
hz=$(getconf CLK_TCK)
# CPU time (user + system) of a process in clock ticks.
ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }

echo "vexaStatus calls/s, ${seconds} s per figure, ${rounds} rounds; $(nproc) cores"
echo "cpu: the called service's CPU time per call over both figures (steadier than the rates on a busy machine)"
results=$(mktemp)
for round in $(seq "$rounds"); do
    for who in root "$caller"; do
        for target in "ru.kelvo.vexa /ru/kelvo/vexa ru.kelvo.vexa" \
            "ru.kelvo.vexa.echo /ru/kelvo/vexa/echo ru.kelvo.vexa.echo"; do
            server=$daemon_pid
            [[ $target == ru.kelvo.vexa.echo* ]] && server=$echo_pid
            before=$(ticks "$server")
            # shellcheck disable=SC2086 # the target is three words
            line=$(setpriv --reuid="$who" --regid="$who" --init-groups "$tools/vexa_bench_calls" $target "$seconds")
            used=$(($(ticks "$server") - before))
            line="$line   cpu $(awk -v t="$used" -v hz="$hz" -v s="$seconds" -v a="$(echo "$line" | awk '{print $3}')" \
                -v b="$(echo "$line" | awk '{print $8}')" 'BEGIN { printf "%.1f us/call", t / hz * 1e6 / ((a + b) * s) }')"
            echo "round $round  $(printf '%-18s' "$who")  $line"
            echo "$who $line" >>"$results"
        done
    done
done
echo
echo "medians (daemon / raw echo):"
for who in root "$caller"; do
    /usr/bin/python3 - "$who" "$results" <<'PY'
import statistics, sys
who, path = sys.argv[1], sys.argv[2]
rows = [l.split() for l in open(path) if l.split()[0] == who]
def med(dest, col):
    return statistics.median(float(r[col]) for r in rows if r[1] == dest)
for name, col in (("sequential", 3), ("32 in flight", 8), ("cpu us/call", 11)):
    d, e = med("ru.kelvo.vexa", col), med("ru.kelvo.vexa.echo", col)
    print(f"  {who:18} {name:13} daemon {d:8.1f}  echo {e:8.1f}  ratio {d / e:.3f}")
PY
done
kill "$echo_pid"
systemctl stop vexa.service
journalctl -o json --no-pager >/e2e/out/journal.json 2>/dev/null
chmod a+r /e2e/out/* 2>/dev/null
exit 0
