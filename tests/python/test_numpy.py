"""NumPy on a mapping, in a sandbox."""

import unittest

import numpy

import tarvo
from region_case import RegionCase


class Arrays(RegionCase):
    def setUp(self) -> None:
        super().setUp()
        self.memory = tarvo.allocate("ring", 65536, "test").map()

    def test_wrap_a_mapping_without_a_copy(self) -> None:
        with self.memory as memory:
            array = numpy.frombuffer(memory.view, dtype="<u4")
            self.assertEqual(array.shape, (16384,))
            array[1] = 0x04030201
            self.assertEqual(bytes(memory.view[4:8]), b"\1\2\3\4")
            memory.view[0] = 9
            self.assertEqual(array[0], 9)
            self.assertFalse(array.flags.owndata)
            del array

    def test_keep_a_mapping_from_being_closed_and_go_on_working(self) -> None:
        for wrap in (
            lambda view: numpy.frombuffer(view, dtype=numpy.uint8),
            lambda view: numpy.asarray(view),
            lambda view: numpy.frombuffer(view, dtype=numpy.uint8)[5:10][1:],
            lambda view: numpy.frombuffer(view[4096:], dtype=numpy.uint64),
        ):
            array = wrap(self.memory.view)
            with self.refused(tarvo.MappingInUse, "array"):
                self.memory.close()
            array[0] = 7
            self.assertEqual(array[0], 7)
            del array
        self.memory.close()

    def test_outlive_the_mapping_object(self) -> None:
        array = numpy.frombuffer(self.memory.view, dtype=numpy.uint8)
        del self.memory
        array[:] = 3
        self.assertEqual(int(array.sum()), 3 * 65536)

    def test_of_a_mapping_for_reading_only_cannot_be_written(self) -> None:
        with tarvo.find_chunk("ring").map(writable=False) as memory:
            array = numpy.frombuffer(memory.view, dtype=numpy.uint8)
            with self.assertRaises(ValueError):
                array[0] = 1
            del array


if __name__ == "__main__":
    unittest.main()
