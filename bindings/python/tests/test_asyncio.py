"""Changes in an asyncio loop: by the framework's descriptor, with no thread."""

import asyncio
import threading

from qelkrell import Value, changes
from test_shared import PLANT, shared, writer  # noqa: F401  a fixture


def test_changes_of_another_process_come(shared, fork):  # noqa: F811
    other = fork(writer)
    assert other.hear() == "ready"
    other.say([(1, 1.0)])
    assert other.hear() == "done"

    async def follow():
        plant = shared.mount(*PLANT)
        seen = {}
        stream = changes(plant.reading)
        async for sensor in stream:
            value = plant.reading.get(sensor)
            seen[sensor] = value and value.celsius
            if seen == {1: 1.0}:
                other.say([(2, 2.0), (1, None)])
            if seen == {1: None, 2: 2.0}:
                break
        stream.close()
        return seen

    threads = threading.active_count()
    assert asyncio.run(asyncio.wait_for(follow(), 60)) == {1: None, 2: 2.0}
    assert threading.active_count() == threads


def test_what_is_there_comes_once_to_a_new_mount_and_to_an_old_one(shared, fork):  # noqa: F811
    other = fork(writer)
    assert other.hear() == "ready"
    other.say([(1, 1.0), (2, 2.0)])
    assert other.hear() == "done"

    async def follow():
        plant = shared.mount(*PLANT)
        for last in (3, 4):
            seen = []
            stream = changes(plant.reading)
            async for sensor in stream:
                seen.append(sensor)
                if sorted(seen) == list(range(1, last)):
                    while plant.reading.control.readerCounters().conquerEnd == 0:
                        await asyncio.sleep(0)
                    other.say([(last, 0.0)])
                if sensor == last:
                    break
            stream.close()
            assert sorted(seen) == list(range(1, last + 1))

    asyncio.run(asyncio.wait_for(follow(), 60))


def test_two_tasks_follow_at_once(site):
    plant = site.mount(*PLANT, role="writer", sizes={"reading": 10})

    async def take(stream, n):
        got = []
        async for sensor in stream:
            got.append(sensor)
            if len(got) == n:
                break
        stream.close()
        return got

    async def main():
        tasks = [asyncio.create_task(take(changes(plant.reading), 3)) for _ in range(2)]
        await asyncio.sleep(0)
        for sensor in (1, 2, 2, 3):
            plant.reading[sensor] = Value("Power::Reading", sensor=sensor,
                                          celsius=float(sensor))
        return await asyncio.wait_for(asyncio.gather(*tasks), 60)

    assert asyncio.run(main()) == [[1, 2, 3], [1, 2, 3]]


def test_the_loop_is_left_alone_afterwards(site):
    plant = site.mount(*PLANT, role="writer", sizes={"reading": 10})

    async def main():
        stream = changes(plant.reading).__aiter__()
        stream.close()
        stream.close()
        loop = asyncio.get_running_loop()
        return len(loop._selector.get_map())

    async def empty():
        return len(asyncio.get_running_loop()._selector.get_map())

    assert asyncio.run(main()) == asyncio.run(empty())
