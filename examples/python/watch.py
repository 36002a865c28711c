"""Prints what is stored, every change and every removal, until it is interrupted."""

import asyncio

import trelan


async def main():
    async with trelan.connect() as bus:
        async for room in bus.watch("room.*"):
            print(room.kind.value, room.name, room.content, flush=True)


asyncio.run(main())
