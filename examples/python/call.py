"""Sends a command to serve.py, and prints the answer."""

import asyncio

import trelan


async def main():
    async with trelan.connect() as bus:
        answer = await bus.call("files", "count", {"list": ["a", "b"]})
        print(answer["n"])


asyncio.run(main())
