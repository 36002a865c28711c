"""The examples as their readers run them, on a bus of their own."""

import asyncio
import json
import pathlib
import subprocess
import sys
import unittest

from support import BusTest

EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples/python"
RUN = """
import functools, json, runpy, sys, trelan
trelan.connect = functools.partial(trelan.connect, **json.loads(sys.argv[1]))
runpy.run_path(sys.argv[2])
"""


class Examples(BusTest):
    async def start(self, *arguments):
        process = await asyncio.create_subprocess_exec(
            sys.executable, *arguments, stdout=subprocess.PIPE)

        async def end():
            if process.returncode is None:
                process.terminate()
            await process.wait()

        self.addAsyncCleanup(end)
        return process

    async def example(self, name):
        return await self.start("-c", RUN, json.dumps(self.daemon.ports), str(EXAMPLES / name))

    async def line(self, process):
        return (await self.within(process.stdout.readline())).decode().strip()

    async def test_publish_and_watch(self):
        watch = await self.example("watch.py")
        publish = await self.example("publish.py")
        self.assertEqual(await self.within(publish.wait()), 0)
        self.assertIn(await self.line(watch), (f"{kind} room.kitchen {{'celsius': 21.5}}"
                                               for kind in ("now", "changed")))
        await self.control("rm", "room.kitchen")
        self.assertEqual(await self.line(watch), "removed room.kitchen {}")

    async def test_call_and_serve(self):
        async with self.connect() as bus:
            serve = await self.example("serve.py")
            await self.until_there("files")
            self.assertEqual(await bus.call("files", "count", {"list": [1]}), {"n": 1})
            self.assertEqual(await self.line(await self.example("call.py")), "2")
            self.assertIsNone(serve.returncode)

    async def until_there(self, name):
        """Waits until a client is on the bus."""
        while f'"{name}"' not in await self.control("--json", "clients"):
            pass


if __name__ == "__main__":
    unittest.main()
