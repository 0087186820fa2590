"""Devices and the whole region, in a sandbox whose rules make two devices refuse."""

import unittest

import tarvo
from region_case import WORLD, RegionCase

MINE = tarvo.Device.parse("0000:03:00.0")
REFUSES_ALL = tarvo.Device.parse("0000:0e:00.0")
KEEPS_ALL = tarvo.Device.parse("0000:0e:00.1")


class Devices(RegionCase):
    def test_are_registered_and_unregistered(self) -> None:
        with self.refused(tarvo.NotRegistered, "0000:03:00.0 is not registered"):
            tarvo.unregister_device(MINE)
        tarvo.register_device(MINE)
        tarvo.register_device(MINE)
        self.assertEqual(tarvo.devices(), [MINE])
        self.assertIs(tarvo.devices()[0].online, True)
        tarvo.unregister_device(MINE)
        self.assertEqual(tarvo.devices(), [])

    def test_are_registered_for_the_length_of_a_with_statement(self) -> None:
        with tarvo.registered(MINE) as device:
            self.assertEqual(tarvo.devices(), [device])
        self.assertEqual(tarvo.devices(), [])
        with tarvo.registered(MINE):
            tarvo.unregister_device(MINE)

    def test_beyond_the_last_place_are_refused(self) -> None:
        for number in range(256):
            tarvo.register_device(tarvo.Device(0, 1, number // 8, number % 8))
        with self.refused(tarvo.TooManyDevices, "no place for 0000:03:00.0: 256 devices"):
            tarvo.register_device(MINE)
        tarvo.register_device(tarvo.Device(0, 1, 0, 0))

    def test_that_refuse_are_reported(self) -> None:
        with tarvo.allocated("ring", 4096, "test"):
            with self.refused(tarvo.Refused, "0000:0e:00.0"):
                tarvo.register_device(REFUSES_ALL)
            tarvo.unregister_device(REFUSES_ALL)

    def test_that_refuse_are_not_left_behind_by_a_with_statement(self) -> None:
        with tarvo.allocated("ring", 4096, "test"):
            with self.refused(tarvo.Refused, "map the chunks for 0000:0e:00.0"):
                with tarvo.registered(REFUSES_ALL):
                    self.fail("the statement's body was entered")
            self.assertEqual(tarvo.devices(), [])

    @unittest.skipIf(WORLD == "cma", "there the driver has the memory back, and the chunk stays")
    def test_that_let_nothing_go_are_reported(self) -> None:
        chunk = tarvo.allocate("ring", 4096, "test")
        tarvo.register_device(KEEPS_ALL)
        with self.refused(tarvo.Refused, "0000:0e:00.1"):
            tarvo.unregister_device(KEEPS_ALL)
        with self.refused(tarvo.Refused, "'ring'"):
            chunk.free()
        tarvo.unregister_device(KEEPS_ALL)

    def test_that_are_none_are_refused(self) -> None:
        for nothing in ("0000:03:00.0", None, (0, 3, 0, 0)):
            for call in (
                tarvo.register_device,
                tarvo.unregister_device,
                lambda device: tarvo.iommu_map(device, tarvo.Access.READ),
                tarvo.iommu_unmap,
            ):
                with self.refused(tarvo.BadArgument, f"{nothing!r} is not a tarvo.Device"):
                    call(nothing)  # type: ignore[arg-type]
        for nothing in (None, 3, b"0000:03:00.0"):
            with self.refused(tarvo.BadArgument, "is not a PCI address"):
                tarvo.Device.parse(nothing)  # type: ignore[arg-type]

    def test_can_be_given_the_whole_region(self) -> None:
        tarvo.iommu_map(MINE, tarvo.Access.READ_WRITE)
        tarvo.iommu_unmap(MINE)
        with self.refused(tarvo.Refused, "0000:0e:00.0"):
            tarvo.iommu_map(REFUSES_ALL, tarvo.Access.READ)
        with self.refused(tarvo.Refused, "0000:0e:00.1"):
            tarvo.iommu_unmap(KEEPS_ALL)
        with self.refused(tarvo.BadArgument, "access 0x10000000000"):
            tarvo.iommu_map(MINE, 1 << 40)  # type: ignore[arg-type]

    def test_are_read_from_and_written_as_their_address(self) -> None:
        device = tarvo.Device.parse("0001:3A:1f.7")
        self.assertEqual(device, tarvo.Device(1, 0x3A, 31, 7))
        self.assertEqual((str(device), device.devfn), ("0001:3a:1f.7", 0xFF))
        self.assertEqual(tarvo.Device.parse("03:00.1"), tarvo.Device(0, 3, 0, 1))

    def test_that_cannot_be_are_refused(self) -> None:
        for text in ("", "3", ":03:00.0", "0000:03:00", "0000:03:00.0 ", "0000:03:00.8",
                     "0000:03:20.0", "0000:-3:00.0", "100000000:03:00.0", "0000:0g:00.0",
                     "0000:03:00.0\n"):  # fmt: skip
            with self.subTest(text=text), self.assertRaises(tarvo.BadArgument):
                tarvo.Device.parse(text)
        for numbers in ((0, 3, 32, 0), (0, 3, 0, 8), (-1, 3, 0, 0), (0, 1 << 32, 0, 0)):
            with self.subTest(numbers=numbers), self.assertRaises(tarvo.BadArgument):
                tarvo.Device(*numbers)


class WholeRegions(RegionCase):
    def test_lie_where_the_world_has_them(self) -> None:
        self.assertEqual(
            tarvo.get_limits(), tarvo.Limits(self.start, self.physical_start, self.size)
        )
        self.assertEqual(tarvo.get_overhead(), 70131712)

    def test_are_translated_both_ways_and_nothing_else(self) -> None:
        for offset in (0, 1, self.size - 1, self.size):
            pa = self.physical_start + offset
            self.assertEqual(tarvo.pa_to_dma(pa), self.start + offset)
            self.assertEqual(tarvo.dma_to_pa(self.start + offset), pa)
        end = self.physical_start + self.size
        for pa in (0, self.physical_start - 1, end + 1, self.physical_start + (1 << 32), -1, 1 << 64):
            with self.subTest(pa=pa), self.assertRaises(tarvo.BadArgument):
                tarvo.pa_to_dma(pa)
        for dma in (0, self.start - 1, self.start + self.size + 1, 0xFFFFFFFF, -1, 1 << 32):
            with self.subTest(dma=dma), self.assertRaises(tarvo.BadArgument):
                tarvo.dma_to_pa(dma)

    def test_are_mapped_once_and_counted(self) -> None:
        with tarvo.allocated("ring", 4096, "test") as chunk, tarvo.WholeRegion() as first:
            self.assertEqual(len(first.view), self.size)
            with tarvo.WholeRegion():
                pass
            offset = chunk.dma - first.where.start
            with chunk.map() as memory:
                first.view[offset] = 0x5A
                self.assertEqual(memory.view[0], 0x5A)

    def test_are_not_closed_under_a_slice_that_is_in_use(self) -> None:
        region = tarvo.WholeRegion()
        part = region.view[:10]
        with self.refused(tarvo.MappingInUse, "in use"):
            region.close()
        part[0] = 1
        del part
        region.close()
        self.assertTrue(region.closed)


if __name__ == "__main__":
    unittest.main()
