// SPDX-License-Identifier: GPL-2.0
/*
 * Devices that the IOMMU does not know yet. On x86 it learns of each device on a bus. Where a
 * device tree describes the machine, kernels before 6.15 wait until a driver is bound to the
 * device, which never happens to the devices of libtarvo: without a group they would be
 * taken for devices that no IOMMU holds back.
 */
#include <linux/device.h>
#include <linux/iommu.h>
#include <linux/of_device.h>
#include <linux/pci.h>

#include "tarvo.h"

/* The description of the bridge that all devices of the bus are below. */
static struct device_node *bridge_of(struct pci_dev *pdev)
{
	struct device *controller = pci_find_host_bridge(pdev->bus)->dev.parent;

	return controller ? controller->of_node : NULL;
}

static bool is_known(struct pci_dev *pdev)
{
	return device_iommu_mapped(&pdev->dev) || READ_ONCE(pdev->dev.driver);
}

int tarvo_introduce(struct pci_dev *pdev)
{
	struct device_node *bridge = bridge_of(pdev);
	int err = 0;

	if (!bridge || is_known(pdev))
		return 0;
	/*
	 * As the kernel does before it binds a driver, and never under one. Who holds this lock and
	 * waits for that of the buses changes virtual functions, which takes a driver.
	 */
	device_lock(&pdev->dev);
	if (!is_known(pdev))
		err = of_dma_configure(&pdev->dev, bridge, true);
	device_unlock(&pdev->dev);
	return err ? -EIO : 0;
}
