"""Chunks, mappings and the listing, in a sandbox."""

import contextlib
import fcntl
import mmap
import os
import random
import signal
import subprocess
import sys
import threading
import unittest

import tarvo
from region_case import AREA, LOCK, WORLD, RegionCase
from tarvo import area

KIB, GIB = 1 << 10, 1 << 30


def others_wait() -> bool:
    """Whether the lock of all processes is held."""
    with open(LOCK, "rb") as file:
        try:
            fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            return True
    return False


class Chunks(RegionCase):
    def test_are_allocated_from_the_regions_start_on(self) -> None:
        first = tarvo.allocate("first", 1, "test")
        second = tarvo.allocate("second", 64 * KIB, "test")
        self.assertEqual(first, tarvo.Chunk("first", self.start, mmap.PAGESIZE))
        self.assertEqual(second, tarvo.Chunk("second", self.start + mmap.PAGESIZE, 64 * KIB))

    def test_are_shared_by_name_and_size(self) -> None:
        mine = tarvo.allocate("shared", 64 * KIB - 1, "test")
        self.assertEqual(tarvo.allocate("shared", 64 * KIB, "other"), mine)
        self.assertEqual(len(tarvo.chunks()), 1)

    def test_of_one_name_and_another_size_are_refused(self) -> None:
        tarvo.allocate("shared", 64 * KIB, "test")
        with self.refused(tarvo.SizeMismatch, "'shared' exists with 65536 bytes, not 131072"):
            tarvo.allocate("shared", 128 * KIB, "test")

    def test_with_names_that_end_the_process_are_refused(self) -> None:
        for name in ("", "n" * 50, "é" * 25, "__HEAD", "__TAIL", "a\0b", "blank "):
            with self.refused(tarvo.BadArgument, "name"):
                tarvo.allocate(name, 4096, "test")
            with self.refused(tarvo.BadArgument, "name"):
                tarvo.free_chunk(name)
            with self.refused(tarvo.BadArgument, "name"):
                tarvo.find_chunk(name)
        for name in (None, 7, b"bytes"):
            with self.refused(tarvo.BadArgument, "is not a str"):
                tarvo.allocate(name, 4096, "test")  # type: ignore[arg-type]

    def test_with_texts_that_cannot_be_encoded_are_refused(self) -> None:
        with self.refused(tarvo.BadArgument, "name '\\ud800' cannot be encoded"):
            tarvo.allocate("\ud800", 4096, "test")
        with self.refused(tarvo.BadArgument, "creator '\\ud800' cannot be encoded"):
            tarvo.allocate("ring", 4096, "\ud800")

    def test_can_have_any_bytes_in_the_longest_name(self) -> None:
        name = "n" * 49 if WORLD == "cma" else " \té\udcff 0x1" + "n" * 38 + "\n"
        mine = tarvo.allocate(name, 4096, "test")
        self.assertEqual(tarvo.find_chunk(name), mine)
        self.assertEqual(tarvo.chunks(), [mine])

    def test_with_sizes_that_end_the_process_are_refused(self) -> None:
        for size in (0, -1, 4 * GIB, 4 * GIB - 1, 4 * GIB - 4095, 16 * GIB, 2 * GIB + 1, 1 << 64):
            with self.refused(tarvo.BadArgument, "size"):
                tarvo.allocate("large", size, "test")
        for size in (1.5, "4096", None):
            with self.refused(tarvo.BadArgument, "is not a whole number"):
                tarvo.allocate("large", size, "test")  # type: ignore[arg-type]

    def test_that_do_not_fit_are_refused(self) -> None:
        with self.refused(tarvo.NoRoom, "'large'"):
            tarvo.allocate("large", 2 * GIB, "test")

    def test_need_a_creator(self) -> None:
        with self.refused(tarvo.BadArgument, "creator"):
            tarvo.allocate("ring", 4096, "")
        with self.refused(tarvo.BadArgument, "creator"):
            tarvo.allocate("ring", 4096, "a\0b")

    def test_are_found_with_all_that_is_known(self) -> None:
        mine = tarvo.allocate("rx_ring", 64 * KIB, "me, myself")
        for found in (
            tarvo.find_chunk("rx_ring"),
            tarvo.find_address(mine.dma),
            tarvo.find_address(mine.dma + mine.size - 1),
            tarvo.chunks()[0],
        ):
            self.assertEqual(found, mine)
            self.assertEqual(found.creator, "me, myself")
            self.assertEqual(found.physical, self.physical_start)
        with self.refused(tarvo.NotFound, "no chunk is called 'tx_ring'"):
            tarvo.find_chunk("tx_ring")
        with self.refused(tarvo.NotFound, "no chunk holds"):
            tarvo.find_address(mine.dma + mine.size)
        with self.refused(tarvo.BadArgument, "0xfffffff0"):
            tarvo.find_address(0xFFFFFFF0)

    def test_are_freed_once(self) -> None:
        mine = tarvo.allocate("ring", 4096, "test")
        mine.free()
        with self.refused(tarvo.NotFound, "'ring'"):
            mine.free()
        with self.refused(tarvo.NotFound, "'ring'"):
            tarvo.free_chunk("ring")

    def test_are_not_used_when_the_name_is_another_chunks_by_now(self) -> None:
        before = tarvo.allocate("ring", 4096, "test")
        tarvo.free_chunk("ring")
        now = tarvo.allocate("ring", 8192, "test")
        with self.refused(tarvo.Changed, "of 8192 bytes at"):
            before.free()
        with self.refused(tarvo.Changed, "look it up again"):
            before.map()
        now.free()

    def test_are_freed_at_the_end_of_a_with_statement(self) -> None:
        with tarvo.allocated("ring", 4096, "test") as mine:
            self.assertEqual(tarvo.chunks(), [mine])
        self.assertEqual(tarvo.chunks(), [])
        with tarvo.allocated("ring", 4096, "test") as mine:
            mine.free()
        with self.assertRaises(KeyError), tarvo.allocated("ring", 4096, "test"):
            raise KeyError
        self.assertEqual(tarvo.chunks(), [])

    def test_are_seen_by_other_processes(self) -> None:
        with tarvo.allocated("ring", 4096, "test") as mine, mine.map() as memory:
            memory.view[:5] = b"hello"
            script = (
                "import tarvo, sys\n"
                "with tarvo.find_chunk('ring').map() as memory:\n"
                "    sys.stdout.write(bytes(memory.view[:5]).decode())\n"
                "    memory.view[:5] = b'world'\n"
            )
            reported = subprocess.run(
                [sys.executable, "-c", script], capture_output=True, text=True, check=True
            )
            self.assertEqual(reported.stdout, "hello")
            self.assertEqual(bytes(memory.view[:5]), b"world")

    def test_can_be_used_by_threads_at_once(self) -> None:
        failures = []

        def use(name: str) -> None:
            try:
                for _ in range(20):
                    with tarvo.allocated(name, 8192, "test") as chunk, chunk.map() as memory:
                        memory.view[:] = name.encode() * 8192
                        if bytes(memory.view) != name.encode() * 8192:
                            failures.append(name)
            except tarvo.TarvoError as error:
                failures.append(str(error))

        threads = [threading.Thread(target=use, args=(name,)) for name in "abcd"]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(failures, [])

    def test_can_be_used_by_a_forked_child_and_its_parent_at_once(self) -> None:
        def use(name: str) -> None:
            for _ in range(1000):
                tarvo.allocate(name, 4096, "test").free()

        tarvo.chunks()
        child = os.fork()
        if child == 0:
            try:
                use("child")
                os._exit(0)
            finally:
                os._exit(1)
        use("parent")
        self.assertEqual(os.waitpid(child, 0), (child, 0))
        self.assertEqual(tarvo.chunks(), [])
        self.assertTrue(area.read(AREA).complete)


class Mappings(RegionCase):
    def setUp(self) -> None:
        super().setUp()
        self.chunk = tarvo.allocate("ring", 64 * KIB, "test")

    def test_are_writable_and_show_one_memory(self) -> None:
        with self.chunk.map() as one, self.chunk.map() as two:
            self.assertFalse(one.view.readonly)
            self.assertEqual((one.view.format, len(one.view), len(one)), ("B", 65536, 65536))
            one.view[65535] = 7
            self.assertEqual(two.view[65535], 7)
            self.assertEqual(one.dma, self.chunk.dma)

    def test_for_reading_only_refuse_writes(self) -> None:
        with self.chunk.map(writable=False) as memory:
            self.assertTrue(memory.view.readonly)
            with self.assertRaises(TypeError):
                memory.view[0] = 1

    def test_of_windows_know_their_dma_address(self) -> None:
        with self.chunk.map() as all_of_it, self.chunk.map(mmap.PAGESIZE * 2, 10) as window:
            self.assertEqual(len(window.view), 10)
            self.assertEqual(window.dma, self.chunk.dma + mmap.PAGESIZE * 2)
            window.view[9] = 9
            self.assertEqual(all_of_it.view[mmap.PAGESIZE * 2 + 9], 9)
        with self.chunk.map(mmap.PAGESIZE) as rest:
            self.assertEqual(len(rest.view), 65536 - mmap.PAGESIZE)

    def test_outside_the_chunk_or_within_a_page_are_refused(self) -> None:
        for offset, size in (
            (65536, None), (0, 65537), (61440, 8192), (4 * GIB, 4096), (4096, 4 * GIB),
            ((1 << 64) - 4096, 8192), (1, 4096), (0, 0), (-4096, 4096), (0, -1), (1 << 64, None),
        ):  # fmt: skip
            with self.subTest(offset=offset, size=size), self.assertRaises(tarvo.BadArgument):
                self.chunk.map(offset, size)

    def test_are_released_when_they_are_closed(self) -> None:
        memory = self.chunk.map()
        view = memory.view
        memory.close()
        self.assertTrue(memory.closed)
        with self.assertRaisesRegex(ValueError, "released"):
            view[0]
        with self.assertRaisesRegex(ValueError, "closed"):
            memory.view
        memory.close()
        self.assertEqual(self.mappings(), 0)

    def mappings(self) -> int:
        """How many mappings of the chunk's memory this process has."""
        file = "/var/tmp/tarvo" if WORLD == "simulation" else "/dev/mem"
        offset = f"{self.physical_start:08x}"
        found = 0
        with open("/proc/self/maps", encoding="utf-8") as maps:
            for line in maps:
                fields = line.split()
                found += fields[2] == offset and fields[-1].endswith(os.path.basename(file))
        return found

    def test_are_not_closed_under_a_slice_that_is_in_use(self) -> None:
        memory = self.chunk.map()
        part = memory.view[10:20]
        with self.refused(tarvo.MappingInUse, "in use"):
            memory.close()
        self.assertFalse(memory.closed)
        part[0] = 3
        self.assertEqual(memory.view[10], 3)
        del part
        memory.close()
        self.assertEqual(self.mappings(), 0)

    def test_say_in_a_with_statement_that_a_slice_is_in_use(self) -> None:
        with self.refused(tarvo.MappingInUse, "in use"):
            with self.chunk.map() as memory:
                part = memory.view[10:20]
        self.assertEqual(self.mappings(), 1)
        del part
        memory.close()

    def test_let_another_error_out_of_a_with_statement(self) -> None:
        with self.assertRaises(KeyError):
            with self.chunk.map() as memory:
                part = memory.view[10:20]
                raise KeyError
        del part
        memory.close()

    def test_go_with_the_last_view_when_they_are_never_closed(self) -> None:
        part = self.chunk.map().view[10:20]
        self.assertEqual(self.mappings(), 1)
        part[0] = 1
        del part
        self.assertEqual(self.mappings(), 0)

    def test_end_without_harm_when_the_chunk_is_gone(self) -> None:
        with self.chunk.map() as memory:
            self.chunk.free()
            memory.view[0] = 1
        self.assertEqual(self.mappings(), 0)


class Listings(RegionCase):
    def test_show_chunks_in_ascending_address(self) -> None:
        made = [tarvo.allocate(name, 4096, "test") for name in ("b", "a", "c")]
        with tarvo.Listing() as now:
            self.assertEqual(list(now.chunks()), made)
            self.assertEqual(list(now.devices()), [])
        self.assertEqual(list(now.chunks()), [])

    def test_hold_the_lock_until_they_are_closed(self) -> None:
        self.assertFalse(others_wait())
        with tarvo.Listing() as now:
            self.assertTrue(others_wait())
            list(now.chunks())
            self.assertTrue(others_wait())
        self.assertFalse(others_wait())
        with self.assertRaises(KeyError), tarvo.Listing():
            raise KeyError
        self.assertFalse(others_wait())

    def test_refuse_every_other_call_meanwhile(self) -> None:
        chunk = tarvo.allocate("ring", 4096, "test")
        device = tarvo.Device.parse("0000:03:00.0")
        with tarvo.Listing() as now:
            for call in (
                tarvo.chunks,
                tarvo.devices,
                chunk.map,
                chunk.free,
                lambda: tarvo.allocate("other", 4096, "test"),
                lambda: tarvo.find_chunk("ring"),
                lambda: tarvo.find_address(chunk.dma),
                lambda: tarvo.free_chunk("ring"),
                lambda: tarvo.register_device(device),
                lambda: tarvo.unregister_device(device),
                lambda: tarvo.iommu_map(device, tarvo.Access.READ),
                lambda: tarvo.iommu_unmap(device),
            ):
                with self.refused(tarvo.ListingOpen, "leave its with statement first"):
                    call()
            self.assertTrue(others_wait())
            self.assertEqual(list(now.chunks()), [chunk])

    def test_leave_the_lock_free_after_each_call(self) -> None:
        chunk = tarvo.allocate("ring", 4096, "test")
        self.assertFalse(others_wait())
        with chunk.map():
            self.assertFalse(others_wait())
        with self.assertRaises(tarvo.SizeMismatch):
            tarvo.allocate("ring", 8192, "test")
        self.assertFalse(others_wait())
        chunk.free()
        self.assertFalse(others_wait())

    def test_give_the_lock_back_when_a_signals_handler_raises(self) -> None:
        # At whichever step the handler comes: Ctrl-C must not hold up all other processes.
        class Interrupt(Exception):
            pass

        def interrupt(*_: object) -> None:
            nonlocal due
            if due:
                due = False
                raise Interrupt

        def interrupted_call() -> None:
            nonlocal due
            due = True
            try:
                signal.setitimer(signal.ITIMER_REAL, dice.uniform(1e-5, 4e-4))
                while due:
                    with contextlib.suppress(tarvo.NotLocked):  # a signal while it waits
                        tarvo.find_chunk("ring")
            except Interrupt:
                pass

        def other_threads_may_call() -> bool:
            done: list[int] = []
            thread = threading.Thread(target=lambda: done.append(len(tarvo.chunks())), daemon=True)
            thread.start()
            thread.join(60)
            return done == [1]

        tarvo.allocate("ring", 4096, "test")
        due = False
        dice = random.Random(1)
        before = signal.signal(signal.SIGALRM, interrupt)
        try:
            for _ in range(3000):
                interrupted_call()
                self.assertFalse(others_wait())
        finally:
            signal.signal(signal.SIGALRM, before)
        self.assertTrue(other_threads_may_call())

    def test_say_that_a_record_is_damaged(self) -> None:
        chunk = tarvo.allocate("ring", 4096, "test")
        element = tarvo.chunks()[0].element
        assert element is not None
        record = 4 + element * 4280
        for offset, damage, reported in (
            (60, b"\x7f" * 8, "outside the region"),
            (9, b"n" * 61, "no chunk's line"),
            (9, b"n" * 600, "a line of more than 511 bytes"),
        ):
            with open(AREA, "r+b", buffering=0) as area:
                area.seek(record + offset)
                before = area.read(len(damage))
                area.seek(record + offset)
                area.write(damage)
                try:
                    with self.refused(tarvo.Damaged, reported):
                        tarvo.chunks()
                    self.assertFalse(others_wait())
                finally:
                    area.seek(record + offset)
                    area.write(before)
        self.assertEqual(tarvo.chunks(), [chunk])


if __name__ == "__main__":
    unittest.main()
