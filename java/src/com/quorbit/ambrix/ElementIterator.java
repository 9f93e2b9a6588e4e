package com.quorbit.ambrix;

import java.util.Iterator;
import java.util.NoSuchElementException;
import java.util.function.IntFunction;

/** Iterates over the elements of a list or sequence, numbered from 1, reading each as it goes. */
final class ElementIterator implements Iterator<Algebraic> {
    private final IntFunction<Algebraic> select;
    private final int length;
    private int next = 1;

    ElementIterator(int length, IntFunction<Algebraic> select) {
        this.length = length;
        this.select = select;
    }

    @Override
    public boolean hasNext() {
        return next <= length;
    }

    @Override
    public Algebraic next() {
        if (next > length) {
            throw new NoSuchElementException();
        }
        return select.apply(next++);
    }
}
