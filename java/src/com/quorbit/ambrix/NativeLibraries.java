package com.quorbit.ambrix;

import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.ArrayList;
import java.util.Locale;

/**
 * Loads the native libraries: {@code libambrix.so} and the kernel it binds
 * to, {@code libvexelc.so}.
 *
 * <p>The kernel is loaded first, so that the dynamic linker satisfies
 * libambrix's dependency on {@code libvexelc.so} (by its soname) with the
 * kernel already in the process. Where from, in this order:
 * <ol>
 * <li>the folder named by the system property {@code ambrix.library.path}:
 * its {@code libambrix.so}, after its {@code libvexelc.so} when it holds
 * one;
 * <li>the copies carried in the jar under {@code linux-x86_64/} (the
 * platform's folder), extracted to a private folder made in the folder the
 * system property {@code ambrix.tmpdir} names (else {@code java.io.tmpdir}),
 * loaded, and deleted;
 * <li>when the jar carries none, or they cannot be extracted or loaded (no
 * writable temporary folder, one mounted {@code noexec}):
 * {@code System.loadLibrary("ambrix")} on {@code java.library.path}, after
 * {@code libvexelc.so} from there when it holds one.
 * </ol>
 * The system property {@code ambrix.kernel}, or else the environment
 * variable {@code AMBRIX_KERNEL}, names a kernel library file to load instead
 * of the one found beside libambrix.
 */
final class NativeLibraries {
    static final String LIBRARY_PATH_PROPERTY = "ambrix.library.path";
    static final String KERNEL_PROPERTY = "ambrix.kernel";
    static final String KERNEL_VARIABLE = "AMBRIX_KERNEL";
    static final String TMPDIR_PROPERTY = "ambrix.tmpdir";

    private static final String AMBRIX = System.mapLibraryName("ambrix");
    private static final String KERNEL = System.mapLibraryName("vexelc");

    /** What was tried, for the message of a failure. */
    private final java.util.List<String> tried = new ArrayList<>();

    private NativeLibraries() {
    }

    /**
     * Loads both libraries, once per class loader (from Engine's static initialiser).
     *
     * @throws UnsatisfiedLinkError naming every path that was tried
     */
    static void load() {
        new NativeLibraries().loadAll();
    }

    /** The folder of the jar's native libraries for this platform, such as {@code linux-x86_64}. */
    static String platform() {
        String os = System.getProperty("os.name", "").toLowerCase(Locale.ROOT).replaceAll("\\s+", "");
        String arch = System.getProperty("os.arch", "").toLowerCase(Locale.ROOT);
        if (arch.equals("amd64") || arch.equals("x86-64")) {
            arch = "x86_64";
        }
        return os + "-" + arch;
    }

    private void loadAll() {
        String kernel = kernelOverride();
        if (kernel != null) {
            loadFile(new File(kernel).getAbsoluteFile());
        }
        String folder = System.getProperty(LIBRARY_PATH_PROPERTY);
        if (folder != null && !folder.isEmpty()) {
            loadFromFolder(new File(folder).getAbsoluteFile(), kernel == null);
        } else if (!loadFromJar(kernel == null)) {
            loadFromLibraryPath(kernel == null);
        }
    }

    private static String kernelOverride() {
        String kernel = System.getProperty(KERNEL_PROPERTY);
        if (kernel == null || kernel.isEmpty()) {
            kernel = System.getenv(KERNEL_VARIABLE);
        }
        return kernel == null || kernel.isEmpty() ? null : kernel;
    }

    private void loadFromFolder(File folder, boolean withKernel) {
        File kernel = new File(folder, KERNEL);
        if (withKernel && kernel.isFile()) {
            loadFile(kernel);
        }
        loadFile(new File(folder, AMBRIX));
    }

    /**
     * False when the jar carries no libraries for this platform, or they
     * could not be extracted or loaded: then java.library.path is next.
     */
    private boolean loadFromJar(boolean withKernel) {
        String base = "/" + platform() + "/";
        String name = "the jar's " + base.substring(1) + AMBRIX;
        if (NativeLibraries.class.getResource(base + AMBRIX) == null) {
            tried.add(name + " (not in the jar)");
            return false;
        }
        String tmp = System.getProperty(TMPDIR_PROPERTY);
        if (tmp == null || tmp.isEmpty()) {
            tmp = System.getProperty("java.io.tmpdir");
        }
        Path dir = null;
        try {
            dir = Files.createTempDirectory(Path.of(tmp), "ambrix-",
                    PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rwx------")));
            // Both are extracted before either is loaded: libambrix finds the
            // kernel beside itself if it is not loaded already.
            Path kernel = withKernel ? extract(base + KERNEL, dir) : null;
            Path ambrix = extract(base + AMBRIX, dir);
            if (kernel != null) {
                System.load(kernel.toString());
            }
            System.load(ambrix.toString());
            return true;
        } catch (IOException | RuntimeException e) {
            tried.add(name + " extracted to " + tmp + " (" + e + ")");
        } catch (UnsatisfiedLinkError e) {
            tried.add(name + " extracted to " + tmp + " (" + e.getMessage() + hint(e) + ")");
        } finally {
            // A loaded library stays mapped after its file is gone.
            deleteAll(dir);
        }
        return false;
    }

    /** A hint for a library that was there but could not be mapped. */
    private static String hint(UnsatisfiedLinkError e) {
        String m = String.valueOf(e.getMessage());
        return m.contains("failed to map segment") || m.contains("Operation not permitted")
                || m.contains("Permission denied") ? "; mounted noexec?" : "";
    }

    /** Copies a resource into the folder; null when the jar does not carry it. */
    private static Path extract(String resource, Path dir) throws IOException {
        try (InputStream in = NativeLibraries.class.getResourceAsStream(resource)) {
            if (in == null) {
                return null;
            }
            Path file = dir.resolve(resource.substring(resource.lastIndexOf('/') + 1));
            Files.copy(in, file, StandardCopyOption.REPLACE_EXISTING);
            return file;
        }
    }

    private static void deleteAll(Path dir) {
        if (dir == null) {
            return;
        }
        File[] files = dir.toFile().listFiles();
        if (files != null) {
            for (File f : files) {
                f.delete();
            }
        }
        dir.toFile().delete();
    }

    private void loadFromLibraryPath(boolean withKernel) {
        String path = System.getProperty("java.library.path");
        if (withKernel) {
            try {
                System.loadLibrary("vexelc");
            } catch (UnsatisfiedLinkError e) {
                // libambrix may still find a kernel through its own run path.
            }
        }
        try {
            System.loadLibrary("ambrix");
        } catch (UnsatisfiedLinkError e) {
            tried.add(AMBRIX + " on java.library.path=" + path + " (" + e.getMessage() + hint(e) + ")");
            throw failure();
        }
    }

    private void loadFile(File file) {
        if (!file.isFile()) {
            tried.add(file + " (no such file)");
            throw failure();
        }
        try {
            System.load(file.getPath());
        } catch (UnsatisfiedLinkError e) {
            tried.add(file + " (" + e.getMessage() + hint(e) + ")");
            throw failure();
        }
    }

    private UnsatisfiedLinkError failure() {
        return new UnsatisfiedLinkError("cannot load the ambrix native libraries; tried: " + String.join("; ", tried));
    }
}
