# The list reports as a script would make them: list.py srv|dev PATH
import json
import socket
import struct
import sys


def receive(sock, size):
    chunks = []
    while size > 0:
        chunk = sock.recv(min(size, 1 << 20))
        if not chunk:
            sys.exit("the connection has ended")
        chunks.append(chunk)
        size -= len(chunk)
    return b"".join(chunks)


def servers_at(path):
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as sock:
        sock.connect(path)
        sock.sendall(bytes(8))
        _, length = struct.unpack("<iI", receive(sock, 8))
        return json.loads(receive(sock, length))["servers"]


def by_id(record):
    return record["id"]


def tree(servers):
    for server in sorted(servers, key=by_id):
        yield f"{server['id']} - {server['host']}:{server['port']} - {server['state']}\n"
        for d in sorted(server["devices"], key=by_id):
            serial = ", " + d["serial"] if d["serial"] else ""
            yield (
                f" {d['id']}\t{d['vid']:04x}:{d['pid']:04x}:{d['rev']:04x}"
                f"\t{d['port']}\t{d['name']} /{d['state']}{serial}/\n"
            )


def devices(servers):
    flat = [(s["id"], d["id"], d) for s in servers for d in s["devices"]]
    flat.sort(key=lambda entry: entry[:2])
    for server_id, device_id, d in flat:
        serial = ", " + d["serial"] if d["serial"] else ""
        yield (
            f"{server_id}:{device_id} - {d['vid']:04x}:{d['pid']:04x}:{d['rev']:04x}"
            f" - {d['name']}, {d['port']}{serial}, {d['state']}\n"
        )


report = {"srv": tree, "dev": devices}[sys.argv[1]]
sys.stdout.buffer.write("".join(report(servers_at(sys.argv[2]))).encode())
