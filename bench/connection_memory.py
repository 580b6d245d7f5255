#!/usr/bin/env python3
"""What one connection costs pelm-server, and whether closing them gives the memory back.

   bench/connection_memory.py PELM_SERVER [N]

Starts the server on a free port (--max-connections and --max-connections-per-address above N), then measures
its RSS: at rest; with N silent TCP connections (opened, nothing sent); once they are closed; with N idle TLS
connections (handshake done, one request answered, kept alive); once those are closed. Prints KiB per
connection for each kind and what is left after closing, against the RSS at rest."""
import os, resource, socket, ssl, subprocess, sys, tempfile, time

server, count = sys.argv[1], int(sys.argv[2]) if len(sys.argv) > 2 else 5000
soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
work = tempfile.mkdtemp()
port = 20000 + os.getpid() % 20000
proc = subprocess.Popen([server, "--db", os.path.join(work, "m.db"), "--port", str(port),
                         "--max-connections", str(count + 100), "--max-connections-per-address", str(count + 100),
                         "--seed", os.path.join(os.path.dirname(__file__), "..", "data", "demo_seed.json")],
                        cwd=work, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
while "listening" not in proc.stdout.readline():
    pass

def rss():
    time.sleep(1.5)  # let the server settle (and hand freed memory back)
    with open(f"/proc/{proc.pid}/status") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))

context = ssl.create_default_context(cafile=os.path.join(work, "pelm-server-certificate", "ca.pem"))
request = b"GET /api/v1/status?app_token=demo-token HTTP/1.1\r\nHost: localhost\r\n\r\n"
rest = rss()
silent = [socket.create_connection(("127.0.0.1", port)) for _ in range(count)]
with_silent = rss()
for s in silent:
    s.close()
after_silent = rss()
idle = []
for _ in range(count):
    s = context.wrap_socket(socket.create_connection(("127.0.0.1", port)), server_hostname="localhost")
    s.sendall(request)
    s.recv(4096)
    idle.append(s)
with_idle = rss()
for s in idle:
    s.close()
after_idle = rss()
proc.terminate()
proc.wait()
print(f"at rest                        {rest:8d} KiB")
print(f"{count} silent TCP connections   {with_silent:8d} KiB: {(with_silent - rest) / count:.1f} KiB each")
print(f"  after they closed            {after_silent:8d} KiB ({after_silent - rest:+d} KiB against rest)")
print(f"{count} idle TLS connections     {with_idle:8d} KiB: {(with_idle - after_silent) / count:.1f} KiB each")
print(f"  after they closed            {after_idle:8d} KiB ({after_idle - rest:+d} KiB against rest)")
