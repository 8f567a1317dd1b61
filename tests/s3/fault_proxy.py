#!/usr/bin/env python3
"""A TCP proxy that misbehaves on purpose, between an S3 client and its server.

    fault_proxy.py HOST:PORT PORT_FILE [--seed N] [--stall SECONDS]

Listens on a free port of 127.0.0.1 (written to PORT_FILE once it listens)
and forwards each connection to HOST:PORT. Connections take their fates in
turn, so every client that retries meets a working one within a few tries:

  refuse  closed at once, nothing forwarded (half of them with a reset)
  stall   held open, nothing forwarded, for --stall seconds (more than the
          client's request timeout), then closed
  slow    forwarded after a pause of 0.2 s, cut after 6 MiB in all
  cut     forwarded, cut after a random 0-1.5 MiB in all (both directions
          counted, so uploads are cut as well as replies)
  pass    forwarded, cut after 24 MiB in all

On SIGTERM or SIGINT it prints how many connections met each fate to
standard error and exits.
"""
import argparse
import asyncio
import os
import random
import signal
import socket
import sys

FATES = ["refuse", "stall", "slow", "cut", "pass"]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("target")
    ap.add_argument("port_file")
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--stall", type=float, default=2.0)
    args = ap.parse_args()
    host, _, port = args.target.rpartition(":")
    rng = random.Random(args.seed)
    counts = {f: 0 for f in FATES}
    state = {"n": 0}

    def close(*writers, reset=False):
        for w in writers:
            if w is None:
                continue
            if reset:
                # SO_LINGER 0: the peer sees a reset rather than an orderly end.
                sock = w.get_extra_info("socket")
                if sock is not None:
                    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")
            w.transport.abort() if reset else w.close()

    async def carry(reader, writer, budget):
        # Copies until EOF, or until the budget both directions share runs out.
        try:
            while True:
                data = await reader.read(65536)
                if not data:
                    return
                if len(data) >= budget[0]:
                    writer.write(data[: budget[0]])
                    await writer.drain()
                    return
                budget[0] -= len(data)
                writer.write(data)
                await writer.drain()
        except (ConnectionError, OSError):
            return

    async def handle(creader, cwriter):
        n = state["n"]
        state["n"] += 1
        fate = FATES[n % len(FATES)]
        counts[fate] += 1
        swriter = None
        try:
            if fate == "refuse":
                close(cwriter, reset=(n // len(FATES)) % 2 == 1)
                return
            if fate == "stall":
                await asyncio.sleep(args.stall)
                close(cwriter)
                return
            if fate == "slow":
                await asyncio.sleep(0.2)
            budget = [{"slow": 6 << 20, "cut": rng.randint(0, 3 << 19), "pass": 24 << 20}[fate]]
            sreader, swriter = await asyncio.open_connection(host, int(port))
            tasks = [asyncio.ensure_future(carry(creader, swriter, budget)),
                     asyncio.ensure_future(carry(sreader, cwriter, budget))]
            await asyncio.wait(tasks, return_when=asyncio.FIRST_COMPLETED)
            for t in tasks:
                t.cancel()
            close(cwriter, swriter, reset=True)
        except (ConnectionError, OSError, asyncio.CancelledError):
            close(cwriter, swriter, reset=True)

    async def serve():
        server = await asyncio.start_server(handle, "127.0.0.1", 0)
        with open(args.port_file + ".tmp", "w") as f:
            f.write(str(server.sockets[0].getsockname()[1]))
        # Renamed into place, so a reader never sees half a number.
        os.replace(args.port_file + ".tmp", args.port_file)
        stop = asyncio.Event()
        loop = asyncio.get_running_loop()
        for sig in (signal.SIGTERM, signal.SIGINT):
            loop.add_signal_handler(sig, stop.set)
        await stop.wait()
        server.close()

    asyncio.run(serve())
    print("fault_proxy: connections " + " ".join(f"{f}={counts[f]}" for f in FATES), file=sys.stderr)


if __name__ == "__main__":
    main()
