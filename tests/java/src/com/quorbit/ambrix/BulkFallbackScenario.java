package com.quorbit.ambrix;

import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import org.junit.jupiter.api.Test;

/**
 * The bulk tests in a JVM whose kernel lacks the optional storage operation
 * (started with ambrix.library.path naming a folder that holds such a
 * kernel): every whole-table call walks the elements one by one instead.
 */
class BulkFallbackScenario extends BulkTest {
    @Test
    void theKernelIsTheOneWithoutTheOperation() throws IOException {
        Kernel.eval("1:");
        String maps = Files.readString(Path.of("/proc/self/maps"));
        assertTrue(maps.contains("lib-nodata/libvexelc.so"), "the kernel was not loaded from lib-nodata");
    }
}
