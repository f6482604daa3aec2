"""Latency of the web path: an authenticated get (HTTP Basic over HTTPS, as a
script sends it) through lighttpd, the command program, cgiconn and coresim,
from 4 clients at once, each on its own keep-alive connection. Starts the stack itself (tools/web/serve)
on a free loopback port, so it runs inside tools/sandbox:

    tools/sandbox /usr/bin/python3 bench/web/web_load.py BIN_DIR PAGE_DIR [SECONDS]

(tools/run-web --load [SECONDS] builds and does that.) Prints p50, p90, p99
and the requests per second; the target is p50 <= 20 ms."""
import base64, http.client, os, socket, ssl, subprocess, sys, tempfile, threading, time

CLIENTS = 4
PATH = '/cgi-bin/command?cmd=get+speaker-volume'


def client(port, tls, password, until, latencies, failures):
    connection = http.client.HTTPSConnection('127.0.0.1', port, context=tls, timeout=5)
    auth = {'Authorization': 'Basic ' + base64.b64encode(f'admin:{password}'.encode()).decode()}
    while time.monotonic() < until:
        start = time.perf_counter()
        connection.request('GET', PATH, headers=auth)
        response = connection.getresponse()
        body = response.read()
        latencies.append(time.perf_counter() - start)
        if response.status != 200 or b'val speaker-volume' not in body:
            failures.append(response.status)
    connection.close()


def percentile(sorted_values, p):
    return sorted_values[min(len(sorted_values) - 1, int(len(sorted_values) * p / 100))]


def main():
    root = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    bin_dir, page_dir = sys.argv[1:3]
    seconds = float(sys.argv[3]) if len(sys.argv) > 3 else 20
    ports = []
    for _ in range(2):
        with socket.socket() as s:
            s.bind(('127.0.0.1', 0))
            ports.append(s.getsockname()[1])
    port = ports[0]
    state = tempfile.mkdtemp()
    server = subprocess.Popen([f'{root}/tools/web/serve', bin_dir, page_dir, str(port), str(ports[1]),
                               state], stdout=subprocess.PIPE, text=True)
    lines = [server.stdout.readline() for _ in range(3)]
    if not lines[0].startswith('serving') or not lines[2].startswith('admin password: '):
        sys.exit('web_load: the stack did not start')
    password = lines[2].split()[-1]
    tls = ssl.create_default_context(cafile=f'{state}/tls/cert.pem')
    latencies, failures = [], []
    client(port, tls, password, time.monotonic() + 1, [], [])  # warm-up
    until = time.monotonic() + seconds
    threads = [threading.Thread(target=client, args=(port, tls, password, until, latencies, failures))
               for _ in range(CLIENTS)]
    began = time.monotonic()
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    elapsed = time.monotonic() - began
    server.terminate()
    server.communicate()
    latencies.sort()
    ms = lambda p: percentile(latencies, p) * 1000
    print(f'web get, {CLIENTS} clients, {elapsed:.1f} s: {len(latencies)} requests, '
          f'{len(failures)} failed, {len(latencies) / elapsed:.0f} requests/s')
    print(f'latency: p50 {ms(50):.1f} ms, p90 {ms(90):.1f} ms, p99 {ms(99):.1f} ms, '
          f'max {latencies[-1] * 1000:.1f} ms (target p50 <= 20 ms)')
    return 1 if failures else 0


if __name__ == '__main__':
    sys.exit(main())
