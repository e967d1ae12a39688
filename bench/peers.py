#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Measures the fetchrig command beside wget, aria2, lftp, tftp-hpa and atftp: CPU time, system calls and wall time of
the same transfers from the same servers on this machine, as ratios to fetchrig's. scripts/bench.sh --peers runs it.

  peers.py FETCHRIG [--write]     prints the table; with --write it takes its place in docs/speed.md, with its chart
"""
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile
import time

TOP = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(TOP / "scripts"))
import servers  # noqa: E402

ROUNDS = 3
MIB = 1 << 20
ARIA2 = "aria2c -q --file-allocation=none --allow-overwrite -d / -o"
# Transfer, size in MiB, and the command lines by program. "{to}" is a new file.
TRANSFERS = [
    ("HTTP download", 256, {
        "fetchrig": "{fetchrig} get -q -o {to} {http}/file",
        "wget": "wget -q -O {to} {http}/file",
        "aria2": f"{ARIA2} {{to}} {{http}}/file",
        "lftp": "lftp -c 'get1 -o {to} {http}/file'"}),
    ("HTTPS download", 256, {
        "fetchrig": "{fetchrig} get -q --ca-dir {ca_dir} -o {to} {https}/file",
        "wget": "wget -q --ca-certificate={ca_file} -O {to} {https}/file",
        "aria2": f"{ARIA2} {{to}} --ca-certificate={{ca_file}} {{https}}/file",
        "lftp": "lftp -c 'set ssl:ca-file {ca_file}; get1 -o {to} {https}/file'"}),
    ("FTP download", 256, {
        "fetchrig": "{fetchrig} get -q -o {to} {ftp}/file",
        "wget": "wget -q -O {to} {ftp}/file",
        "aria2": f"{ARIA2} {{to}} {{ftp}}/file",
        "lftp": "lftp -c 'get1 -o {to} {ftp}/file'"}),
    ("FTP upload", 256, {
        "fetchrig": "{fetchrig} put -q {file} {ftp}/upload/sent",
        "lftp": "lftp -c 'open {ftp}; put {file} -o upload/sent'"}),
    ("TFTP download", 16, {
        "fetchrig": "{fetchrig} get -q -o {to} {tftp}/file",
        "atftp": "atftp --option 'blksize 1432' -g -r file -l {to} {tftp_host} {tftp_port}",
        "tftp-hpa": "tftp -m binary {tftp_host} {tftp_port} -c get file {to}"}),
]
MEASURES = ["CPU", "system calls", "wall time"]


def run_once(words):
    """CPU and wall time in seconds."""
    began = time.monotonic()
    child = subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(child.pid, 0)
    child.returncode = os.waitstatus_to_exitcode(status)
    if child.returncode != 0:
        sys.exit(f"failed: {shlex.join(words)}")
    return usage.ru_utime + usage.ru_stime, time.monotonic() - began


def system_calls(words, work):
    told = work / "strace"
    subprocess.run(["strace", "-f", "-c", "-U", "calls,name", "-o", told, *words], check=True,
                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    return int(re.search(r"(\d+) total", told.read_text())[1])


def measure(lines, places, work):
    """By program: CPU time, system calls, wall time; the best of the rounds, in which programs take turns."""
    commands = {name: shlex.split(line.format(**places)) for name, line in lines.items()}
    times = {name: [] for name in commands}
    for _ in range(ROUNDS):
        for name, words in commands.items():
            pathlib.Path(places["to"]).unlink(missing_ok=True)
            times[name].append(run_once(words))
    best = {}
    for name, words in commands.items():
        pathlib.Path(places["to"]).unlink(missing_ok=True)
        cpu, wall = map(min, zip(*times[name]))
        best[name] = (cpu, system_calls(words, work), wall)
    return best


def ratios(best):
    ours = best["fetchrig"]
    return {name: [value / own for value, own in zip(each, ours)] for name, each in best.items()}


def measure_all(fetchrig):
    with tempfile.TemporaryDirectory() as directory:
        place = servers.Place(pathlib.Path(directory))
        tftp_server = "tftpd" if os.geteuid() == 0 else "atftpd"
        running = [servers.start(name, place) for name in ("nginx", "vsftpd", tftp_server)]
        try:
            work = pathlib.Path(directory) / "work"
            work.mkdir()
            places = {scheme: server.url(scheme) for server in running for scheme in server.ports}
            places |= {"fetchrig": fetchrig, "to": work / "got", "file": place.root / "file",
                       "ca_dir": place.authority.hashed, "ca_file": place.authority.file,
                       "tftp_host": "127.0.0.1", "tftp_port": running[-1].ports["tftp"]}
            for title, mib, lines in TRANSFERS:
                (place.root / "file").write_bytes(os.urandom(MIB) * mib)
                yield title, mib, ratios(measure(lines, places, work))
        finally:
            for server in running:
                server.stop()


def table(results):
    lines = [f"| Transfer | Program | {' | '.join(MEASURES)} |", "|---|---|---|---|---|"]
    for title, mib, programs in results:
        for name, values in programs.items():
            lines.append(f"| {title}, {mib} MiB | {name} | {' | '.join(f'{value:.2f}' for value in values)} |")
    return "\n".join(lines)


def draw(results, target):
    """A chart of the CPU times and one of the wall times, a group of bars for each transfer."""
    programs = sorted({name for _, _, each in results for name in each}, key=lambda name: (name != "fetchrig", name))
    script = [f"set terminal svg size 900,680 font 'sans-serif,13' background '#ffffff'; set output '{target}'",
              "set multiplot layout 2,1; set style data histogram; set style histogram cluster gap 1",
              "set style fill solid 0.8 border -1; set yrange [0:*]; set grid y; set key outside right; set bmargin 3"]
    for column in (0, 2):
        rows = [[f'"{title}"'.replace(" ", r"\n"),
                 *(f"{each[name][column]:.3f}" if name in each else "NaN" for name in programs)]
                for title, _, each in results]
        block = "\n".join(map(" ".join, rows))
        script += [f"$data{column} << END\n{block}\nEND", f"set title '{MEASURES[column]}, fetchrig = 1'",
                   "plot " + ", ".join(f"$data{column} using {index + 2}:xtic(1) title '{name}'"
                                       for index, name in enumerate(programs))]
    subprocess.run(["gnuplot"], input="\n".join(script) + "\n", text=True, check=True)


def main(fetchrig, *options):
    load = os.getloadavg()[0]
    results = list(measure_all(fetchrig))
    text = (f"Best of {ROUNDS} rounds; load of the machine before the run {load:.1f} on {os.cpu_count()} cores.\n\n" +
            table(results))
    print(text)
    if "--write" in options:
        page = TOP / "docs/speed.md"
        draw(results, TOP / "docs/speed.svg")
        page.write_text(re.sub(r"(?s)(<!-- figures -->\n).*(\n<!-- end -->)", lambda found: found[1] + text + found[2],
                               page.read_text()))


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    main(*sys.argv[1:])
