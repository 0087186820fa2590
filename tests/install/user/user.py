import tarvo

with tarvo.allocated("ring", 0x10000, "user") as ring, ring.map() as memory:
    memory.view[:5] = b"ready"
    print(f"{bytes(memory.view[:5]).decode()} at {ring.dma:#010x}")
