"""Writes each line "SENSOR CELSIUS" of standard input into the plant: writer.py TYPES"""

import select
import sys

import qelkrell

qelkrell.load_types(sys.argv[1])
plant = qelkrell.Site("site").mount("north/plant", "Power::Plant", "writer", sizes={"reading": 100})
print("writing", flush=True)
while True:
    ready, _, _ = select.select([sys.stdin, qelkrell.descriptor()], [], [])
    qelkrell.run_once(0.0)
    if sys.stdin in ready:
        line = sys.stdin.readline()
        if not line:
            break
        sensor, celsius = line.split()
        plant.reading[int(sensor)] = {"sensor": int(sensor), "celsius": float(celsius)}
