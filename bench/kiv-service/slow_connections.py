"""Latency of normal requests while slow clients hold many connections open.

Keeps SLOW_HANDSHAKES connections that send a TLS ClientHello one byte a second (never its last byte) and
SLOW_HEADS connections that complete the handshake and then send a request head one byte a second, reopening
any that the server closes, so that the whole population stays open. Meanwhile it times SAMPLES normal
requests (a fresh connection, handshake, GET, whole answer), first with no slow clients, then with all of
them open. Prints one line per phase: p50, p99 and max in milliseconds, and how many slow connections were
open.

Usage: slow_connections.py HOST PORT PATH CA_FILE [AUTHORIZATION]
Environment: SLOW_HANDSHAKES (500), SLOW_HEADS (500), SAMPLES (50).
"""

import asyncio
import os
import ssl
import statistics
import sys
import time

HOST, PORT, PATH, CA_FILE = sys.argv[1], int(sys.argv[2]), sys.argv[3], sys.argv[4]
AUTHORIZATION = sys.argv[5] if len(sys.argv) > 5 else ""
SLOW_HANDSHAKES = int(os.environ.get("SLOW_HANDSHAKES", "500"))
SLOW_HEADS = int(os.environ.get("SLOW_HEADS", "500"))
SAMPLES = int(os.environ.get("SAMPLES", "50"))
REQUEST_BOUND = 30.0  # seconds; a request that takes longer counts as this long

context = ssl.create_default_context(cafile=CA_FILE)


def client_hello():
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    handshake = context.wrap_bio(incoming, outgoing, server_hostname=HOST)
    try:
        handshake.do_handshake()
    except ssl.SSLWantReadError:
        pass
    return outgoing.read()


HELLO = client_hello()
HEAD = b"GET " + PATH.encode() + b" HTTP/1.1\r\nHost: " + HOST.encode() + b"\r\n"
FILLER = b"X-Slow: 1\r\n"


class Population:
    def __init__(self):
        self.open = 0
        self.stopping = False

    async def keep(self, tls):
        """One slow client, reopened whenever the server closes it."""
        while not self.stopping:
            try:
                if tls:
                    reader, writer = await asyncio.open_connection(HOST, PORT, ssl=context)
                else:
                    reader, writer = await asyncio.open_connection(HOST, PORT)
            except OSError:
                await asyncio.sleep(1)
                continue
            self.open += 1
            try:
                sent = 0
                while not self.stopping:
                    if tls:
                        byte = HEAD[sent:sent + 1] if sent < len(HEAD) else FILLER[(sent - len(HEAD)) % len(FILLER):][:1]
                    else:
                        byte = HELLO[min(sent, len(HELLO) - 2):][:1]
                    writer.write(byte)
                    await writer.drain()
                    sent += 1
                    try:
                        await asyncio.wait_for(reader.read(1 << 16), timeout=1.0)
                        break  # the server answered or closed: reopen
                    except asyncio.TimeoutError:
                        pass
            except (OSError, ssl.SSLError):
                pass
            finally:
                self.open -= 1
                writer.close()


async def normal_request():
    start = time.monotonic()
    try:
        reader, writer = await asyncio.wait_for(asyncio.open_connection(HOST, PORT, ssl=context), REQUEST_BOUND)
        headers = "Authorization: " + AUTHORIZATION + "\r\n" if AUTHORIZATION else ""
        writer.write(("GET " + PATH + " HTTP/1.1\r\nHost: " + HOST + "\r\n" + headers +
                      "Connection: close\r\n\r\n").encode())
        answer = await asyncio.wait_for(reader.read(), REQUEST_BOUND - (time.monotonic() - start))
        writer.close()
        if not answer.startswith(b"HTTP/1.1 200"):
            raise RuntimeError(answer[:80])
    except (asyncio.TimeoutError, OSError, ssl.SSLError):
        return REQUEST_BOUND * 1000
    return (time.monotonic() - start) * 1000


async def measure(label, population):
    latencies = []
    counts = []
    for _ in range(SAMPLES):
        counts.append(population.open)
        latencies.append(await normal_request())
        await asyncio.sleep(0.1)
    latencies.sort()
    p99 = latencies[min(len(latencies) - 1, int(len(latencies) * 0.99))]
    print(f"{label}: p50 {statistics.median(latencies):.1f} ms, p99 {p99:.1f} ms, max {latencies[-1]:.1f} ms "
          f"({min(counts)}-{max(counts)} slow connections open)", flush=True)


async def main():
    population = Population()
    await measure("no slow clients", population)
    clients = [asyncio.create_task(population.keep(False)) for _ in range(SLOW_HANDSHAKES)]
    clients += [asyncio.create_task(population.keep(True)) for _ in range(SLOW_HEADS)]
    wanted = SLOW_HANDSHAKES + SLOW_HEADS
    deadline = time.monotonic() + 60
    while population.open < wanted and time.monotonic() < deadline:
        await asyncio.sleep(0.1)
    await measure(f"{SLOW_HANDSHAKES} slow handshakes + {SLOW_HEADS} slow heads", population)
    population.stopping = True
    await asyncio.gather(*clients, return_exceptions=True)


asyncio.run(main())
