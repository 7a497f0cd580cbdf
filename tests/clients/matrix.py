#!/usr/bin/env python3
"""Lets real clients connect to a server at each level with each kind of certificate, and holds what
kelotlsctl clients judge says of their hellos against what became of the connections.

    matrix.py COMMAND LEVEL_SERVER CERTIFICATES OUTPUT [--only FAMILY,...] [--every N] [--least N]
    matrix.py COMMAND LEVEL_SERVER CERTIFICATES OUTPUT --known

--known: writes the file of known clients instead. Runs in a private tree. OUTPUT gets the distinct hellos, with the names of those that send them.
"""
import argparse
import collections
import json
import os
import queue
import shutil
import subprocess
import sys
import threading
import time

import hello as hellos
import offers

RECORDS = "/usr/kelo/etc/security-profile/tls-profile/clients"
KINDS = {"rsa": "rsa:2048", "ecdsa": "ecdsa:P-256"}
SERVICE = "judged"


class Server:
    """The servers, and what they tell of connections."""

    def __init__(self, program, certificates):
        self.process = subprocess.Popen([program, certificates], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        self.ports = json.loads(self.process.stdout.readline())
        self.lines = queue.Queue()
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        for line in self.process.stdout:
            self.lines.put(json.loads(line))

    def connect(self, client, server):
        """What is told of the connections of the client to this server."""
        name, command, text, environment = client
        command = [word.replace("{port}", str(self.ports[server])) for word in command if word]
        if "{port}" in client[1] and client[1][-1] == "":
            command.append("")
        child = subprocess.run(command, input=text.encode(), stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, timeout=60, check=False,
                               env={**os.environ, **environment})
        told = []
        end = time.monotonic() + 0.3
        while not told or not self.lines.empty():
            try:
                told.append(self.lines.get(timeout=max(0.01, end - time.monotonic())))
            except queue.Empty:
                break
        return told, child.stdout.decode(errors="replace")[-300:]


def prepare():
    os.environ["HOME"] = "/tmp"
    with open("/tmp/java.security", "w") as file:
        file.write("jdk.tls.disabledAlgorithms=\njdk.certpath.disabledAlgorithms=\n"
                   "jdk.tls.legacyAlgorithms=\n")
    directory = os.path.dirname(os.path.abspath(__file__))
    if shutil.which("javac"):
        subprocess.run(["javac", "-d", "/tmp", directory + "/Client.java"], check=True)
    if shutil.which("go"):
        subprocess.run(["go", "build", "-o", "/tmp/go-client", directory + "/client.go"], check=True,
                       env={**os.environ, "GOCACHE": "/tmp/go-cache", "GOPATH": "/tmp/go",
                            "GO111MODULE": "off", "GOTOOLCHAIN": "local"})
    os.makedirs("/usr/kelo/etc/ssl", exist_ok=True)
    for name in ("dh1024.pem", "dh2048.pem"):
        shutil.copy(offers.project + "/tests/bed/data/" + name, "/usr/kelo/etc/ssl/" + name)


def record(messages):
    """A record with these hellos, as the command keeps it."""
    now = int(time.time())
    stamp = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(now))
    hour = time.strftime("%Y-%m-%dT%H", time.gmtime(now))
    document = {"service": SERVICE, "since": stamp, "until": stamp, "connections": len(messages),
                "left-out": {"hellos": 0, "connections": 0},
                "unread": {"not-tls": 0, "ssl2": 0, "incomplete": 0, "too-large": 0},
                "kernel-drops": 0,
                "hellos": [{"hello": message, "count": 1, "first": stamp, "last": stamp,
                            "hours": {hour: 1}, "addresses": []} for message in messages]}
    os.makedirs(RECORDS, mode=0o700, exist_ok=True)
    with open(f"{RECORDS}/{SERVICE}.json", "w") as file:
        json.dump(document, file)


def judge(command, server):
    level, kind = server.split()
    result = subprocess.run([command, "clients", "judge", SERVICE, level, "--certificate", KINDS[kind],
                             "--json", "--quiet"], stdout=subprocess.PIPE, check=False)
    assert result.returncode in (0, 3), result.returncode
    return {client["hello"]: client["then"] for client in json.loads(result.stdout)["clients"]}


def join(command):
    for step in (["init", "--default", "old"], ["join", "-"]):
        registration = {"services": [{"service": SERVICE, "display-name": "Judged"}]}
        subprocess.run([command, *step], input=json.dumps(registration), text=True, check=True,
                       stdout=subprocess.DEVNULL)


def disagreement(told, judged):
    """Empty where the judgement is what became of the connection."""
    outcome = told["outcome"]
    if outcome == "refused":
        return "" if not judged["answered"] else "refused: " + told["reason"]
    if not judged["answered"]:
        return "not refused but " + outcome
    if outcome != "done":
        return ""
    seen = told["version"].replace("TLSv1", "TLS 1.").replace("..", ".")
    seen = "TLS 1.0" if seen == "TLS 1." else seen
    expected = judged["protocol"], judged["cipher-suite"], judged["after-retry"]
    real = seen, told["suite"], told["retry"]
    return "" if expected == real else f"became {real}, was judged {expected}"


def clients_of(options):
    for family in offers.FAMILIES:
        if options.only and family.__name__ not in options.only.split(","):
            continue
        all_of_it = list(family())
        if not offers.is_there(all_of_it[0]):
            sys.exit(f"{family.__name__} is not here")
        for client in all_of_it[::options.every]:
            yield family.__name__, client


def write_known(server, output):
    """The hellos of clients as they come, with the names that the command tells them by."""
    named = {}
    for name, client in offers.as_they_come():
        told, text = server.connect(client, "intermediate rsa")
        for one in told:
            key = hellos.Hello(bytes.fromhex(one["hello"])).key()
            named.setdefault((key, name), one["hello"])
        if not told:
            print(f"said nothing: {name}: {' '.join(text.split())[-120:]}")
    clients = [{"name": name, "hello": hello} for (_, name), hello in named.items()]
    with open(output, "w") as file:
        file.write('{"clients": [\n' + ",\n".join(map(json.dumps, clients)) + "\n]}\n")
    print(f"{len(clients)} hellos of {len({one['name'] for one in clients})} clients")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("command")
    parser.add_argument("level_server")
    parser.add_argument("certificates")
    parser.add_argument("output")
    parser.add_argument("--only")
    parser.add_argument("--known", action="store_true")
    parser.add_argument("--every", type=int, default=1)
    parser.add_argument("--least", type=int, default=0)
    options = parser.parse_args()
    prepare()
    join(options.command)
    server = Server(options.level_server, options.certificates)
    if options.known:
        write_known(server, options.output)
        return
    connections, silent = [], []
    for family, client in clients_of(options):
        said = 0
        for name in server.ports:
            told, output = server.connect(client, name)
            connections += [(client[0], one) for one in told if one["hello"]]
            said += sum(1 for one in told if one["hello"])
        if not said:
            silent.append(client[0] + ": " + " ".join(output.split())[-120:])
    keys = {}
    senders = collections.defaultdict(list)
    for name, told in connections:
        key = hellos.Hello(bytes.fromhex(told["hello"])).key()
        message = keys.setdefault(key, told["hello"])
        if name not in senders[message]:
            senders[message].append(name)
    record(list(keys.values()))
    verdicts = {name: judge(options.command, name) for name in server.ports}
    tally = collections.Counter()
    wrong = []
    for name, told in connections:
        message = keys[hellos.Hello(bytes.fromhex(told["hello"])).key()]
        tally[told["outcome"]] += 1
        if told["outcome"] == "closed":
            continue
        difference = disagreement(told, verdicts[told["server"]][message])
        if difference:
            wrong.append(f"{name} at {told['server']}: {difference} "
                         f"({verdicts[told['server']][message].get('text', '')})")
    with open(options.output, "w") as file:
        json.dump([{"hello": message, "clients": names} for message, names in senders.items()], file)
    for line in silent:
        print("said nothing: " + line)
    for line in wrong:
        print("DISAGREES: " + line)
    print(f"{len(keys)} distinct hellos in {len(connections)} connections: {tally['done']} done, "
          f"{tally['refused']} refused by the server, {tally['client-refused']} where the client may "
          f"refuse and did, {tally['closed']} closed by the client before an answer; "
          f"{len(wrong)} disagreements")
    sys.exit(1 if wrong or len(keys) < options.least else 0)


if __name__ == "__main__":
    main()
