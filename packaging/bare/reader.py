"""Prints the plant's readings as they change, until it is ended: reader.py TYPES"""

import asyncio
import sys

import qelkrell


async def main():
    qelkrell.load_types(sys.argv[1])
    plant = qelkrell.Site("site").mount("north/plant", "Power::Plant", "reader")
    async for sensor in qelkrell.changes(plant.reading):
        print(f"{sensor}: {plant.reading[sensor].celsius}", flush=True)


asyncio.run(main())
