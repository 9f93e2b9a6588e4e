package com.quorbit.ambrix.pool;

import com.quorbit.externalcall.VexelException;
import java.io.IOException;
import java.nio.channels.FileChannel;
import java.nio.channels.OverlappingFileLockException;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.StandardOpenOption;
import java.nio.file.attribute.PosixFilePermissions;
import java.nio.file.attribute.UserPrincipal;
import java.util.Map;
import java.util.concurrent.ConcurrentHashMap;
import java.util.regex.Pattern;

/**
 * The private folders that hold the workers' sockets, one per pool, named
 * {@code ambrix-pool-PID-N} after the process that made it. The pool's JVM
 * holds a lock on the file {@value #LOCK} in its folder for as long as the
 * folder is in use. The lock is the kernel's, on the file itself: it holds
 * across PID namespaces (a container that shares the temporary folder sees
 * other process ids, or none), and it goes however the JVM ends. A folder
 * is made under a name of its own, locked, and only then renamed into
 * place, so that no pool ever finds another's folder unlocked while it lives.
 *
 * <p>A pool removes its folder when it is closed; a shutdown hook removes
 * the folders of pools that were never closed; and a new pool removes the
 * folders of this user whose lock it can take: the JVM that held it was
 * killed. A folder without that file is left alone.
 */
final class SocketFolders {
    private static final String PREFIX = "ambrix-pool-";
    /** Where a folder is made and locked, before it takes its name. */
    private static final String MAKING = PREFIX + "new-";
    private static final Pattern NAME = Pattern.compile(Pattern.quote(PREFIX) + "\\d+-\\d+");
    /** The file whose lock tells that a folder's pool lives. */
    static final String LOCK = "owner.lock";
    /** This JVM's folders not yet removed, each with the channel that holds its lock. */
    private static final Map<Path, FileChannel> OPEN = new ConcurrentHashMap<>();

    static {
        Thread hook = new Thread(() -> {
            for (Path folder : OPEN.keySet()) {
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

    /** A new folder that only this user can open, in the temporary folder, locked by this JVM. */
    static Path make() {
        Path temp = Path.of(System.getProperty("java.io.tmpdir"));
        Path folder;
        FileChannel lock = null;
        try {
            Path making = Files.createTempDirectory(temp, MAKING,
                    PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rwx------")));
            try {
                lock = FileChannel.open(making.resolve(LOCK), StandardOpenOption.CREATE_NEW,
                        StandardOpenOption.WRITE);
                lock.lock();
                folder = temp.resolve(PREFIX + ProcessHandle.current().pid() + "-"
                        + making.getFileName().toString().substring(MAKING.length()));
                Files.move(making, folder, StandardCopyOption.ATOMIC_MOVE);
            } catch (IOException | RuntimeException e) {
                removeTree(making);
                throw e;
            }
        } catch (IOException | UnsupportedOperationException e) {
            closeQuietly(lock);
            throw new VexelException("cannot make the pool's socket folder: " + e.getMessage());
        }
        OPEN.put(folder, lock);
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
        closeQuietly(OPEN.remove(folder));
    }

    /** Removes the folders in {@code temp} that {@code me} owns whose lock no process holds. */
    private static void removeAbandoned(Path temp, UserPrincipal me) {
        try (DirectoryStream<Path> folders = Files.newDirectoryStream(temp, PREFIX + "*")) {
            for (Path folder : folders) {
                // This JVM's own are never opened here: closing any channel to a file drops the JVM's lock on it.
                if (NAME.matcher(folder.getFileName().toString()).matches() && !OPEN.containsKey(folder)
                        && ownedBy(folder, me)) {
                    removeIfAbandoned(folder);
                }
            }
        } catch (IOException | RuntimeException e) {
            // a temporary folder that cannot be listed keeps what it holds
        }
    }

    /** Removes the folder when its lock can be taken: no process holds it, so its pool has ended. */
    private static void removeIfAbandoned(Path folder) {
        try (FileChannel c = FileChannel.open(folder.resolve(LOCK), StandardOpenOption.WRITE,
                LinkOption.NOFOLLOW_LINKS)) {
            if (c.tryLock() != null) {
                removeTree(folder);
            }
        } catch (IOException | OverlappingFileLockException e) {
            // no lock file (a folder this code did not make), or one that cannot be opened: left alone
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

    private static void closeQuietly(FileChannel c) {
        if (c == null) {
            return;
        }
        try {
            c.close();
        } catch (IOException e) {
            // the lock goes with the channel anyway
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
