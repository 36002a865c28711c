"""Publishes an object, which the bus keeps."""

import asyncio

import trelan


async def main():
    async with trelan.connect("thermometer") as bus:
        await bus.publish("room.kitchen", {"celsius": 21.5})


asyncio.run(main())
