package com.quorbit.ambrix.pool;

import com.quorbit.externalcall.VexelException;
import java.io.IOException;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.nio.file.attribute.UserPrincipal;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * The private folders that hold the workers' sockets, one per pool, named
 * {@code ambrix-pool-PID-N} after the process that made it. A pool removes
 * its folder when it is closed; a shutdown hook removes the folders of
 * pools that were never closed; and a new pool removes the folders that
 * processes of this user left behind when they were killed.
 */
final class SocketFolders {
    private static final String PREFIX = "ambrix-pool-";
    private static final Pattern NAME = Pattern.compile(Pattern.quote(PREFIX) + "(\\d+)-\\d+");
    /** This JVM's folders not yet removed. */
    private static final Set<Path> OPEN = ConcurrentHashMap.newKeySet();

    static {
        Thread hook = new Thread(() -> {
            for (Path folder : OPEN) {
                removeTree(folder);
            }
        }, "ambrix-pool-folders");
        try {
            Runtime.getRuntime().addShutdownHook(hook);
        } catch (IllegalStateException e) {
            // the JVM is already shutting down
        }
    }

    private SocketFolders() {}

    /** A new folder that only this user can open, in the temporary folder. */
    static Path make() {
        Path temp = Path.of(System.getProperty("java.io.tmpdir"));
        Path folder;
        try {
            folder = Files.createTempDirectory(temp, PREFIX + ProcessHandle.current().pid() + "-",
                    PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rwx------")));
        } catch (IOException | UnsupportedOperationException e) {
            throw new VexelException("cannot make the pool's socket folder: " + e.getMessage());
        }
        OPEN.add(folder);
        try {
            removeAbandoned(temp, Files.getOwner(folder, LinkOption.NOFOLLOW_LINKS));
        } catch (IOException e) {
            // without its owner, no other folder is touched
        }
        return folder;
    }

    /** Removes a pool's folder and what is left in it (the socket of a worker that was starting). */
    static void remove(Path folder) {
        removeTree(folder);
        OPEN.remove(folder);
    }

    /** Removes the folders in {@code temp} that {@code me} owns, of processes that no longer exist. */
    private static void removeAbandoned(Path temp, UserPrincipal me) {
        try (DirectoryStream<Path> folders = Files.newDirectoryStream(temp, PREFIX + "*")) {
            for (Path folder : folders) {
                Matcher m = NAME.matcher(folder.getFileName().toString());
                if (m.matches() && !alive(m.group(1)) && ownedBy(folder, me)) {
                    removeTree(folder);
                }
            }
        } catch (IOException | RuntimeException e) {
            // a temporary folder that cannot be listed keeps what it holds
        }
    }

    private static boolean alive(String pid) {
        try {
            return ProcessHandle.of(Long.parseLong(pid)).isPresent();
        } catch (NumberFormatException e) {
            return true;
        }
    }

    private static boolean ownedBy(Path folder, UserPrincipal me) {
        try {
            return Files.isDirectory(folder, LinkOption.NOFOLLOW_LINKS)
                    && Files.getOwner(folder, LinkOption.NOFOLLOW_LINKS).equals(me);
        } catch (IOException e) {
            return false;
        }
    }

    private static void removeTree(Path folder) {
        try (DirectoryStream<Path> entries = Files.newDirectoryStream(folder)) {
            for (Path entry : entries) {
                Files.deleteIfExists(entry);
            }
        } catch (IOException e) {
            // gone already, or not ours to list
        }
        try {
            Files.deleteIfExists(folder);
        } catch (IOException e) {
            // something was made in it meanwhile
        }
    }
}
