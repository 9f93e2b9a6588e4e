package com.quorbit.ambrix.pool;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/**
 * The shell that cancels a Slurm launcher's jobs when its JVM ends, with an
 * scancel of the test's own first on its PATH: at the end of its input, it
 * cancels the jobs it was told of ("+ID") and not told are over ("-ID").
 */
class SlurmReaperTest {
    @ParameterizedTest
    @CsvSource(delimiter = '|', value = {
        "+1 +2 +3 -2       | 1 3",
        "+1 -1             | ''",
        "''                | ''",
        "+10 +1 -1 +12_3 -10 | 12_3",
        "+5 -55 -5 +55     | 55",
        "+7 -8             | 7"})
    void cancelsTheJobsNotOverWhenItsInputEnds(String lines, String cancelled, @TempDir Path dir) throws Exception {
        Path out = dir.resolve("cancelled");
        Path scancel = dir.resolve("scancel");
        Files.writeString(scancel, "#!/bin/sh\necho \"$*\" >'" + out + "'\n");
        assertTrue(scancel.toFile().setExecutable(true));
        ProcessBuilder b = new ProcessBuilder("sh", "-c", SlurmJobs.Reaper.SCRIPT);
        b.environment().put("PATH", dir + ":" + System.getenv("PATH"));
        Process reaper = b.start();
        String input = lines.isEmpty() ? "" : String.join("\n", lines.split(" ")) + "\n";
        reaper.getOutputStream().write(input.getBytes(StandardCharsets.US_ASCII));
        reaper.getOutputStream().close();
        assertTrue(reaper.waitFor(10, TimeUnit.SECONDS));
        assertEquals(cancelled, Files.exists(out) ? Files.readString(out).strip() : "");
    }
}
