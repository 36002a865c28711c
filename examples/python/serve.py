"""Answers the command of call.py, until it is interrupted."""

import asyncio

import trelan


async def main():
    async with trelan.connect("files") as bus:
        bus.serve("count", lambda call: {"n": len(call.params["list"])})
        await bus.forever()


asyncio.run(main())
