#!/usr/bin/perl
# A host without a binding: kelvo-log, a child process, makes each call as its line arrives.
use strict;
use warnings;

open(my $kelvo, '|-', 'kelvo-log', '--app-id', 'hello-perl', '--delivery', 'complete', '--quiet') or die "kelvo-log: $!";
$kelvo->autoflush(1);
print $kelvo '{"call": "didBecomeActive"}', "\n";
print $kelvo '{"name": "Greeting", "info": {"language": "en", "words": 2}}', "\n";
close($kelvo);    # ends the input, waits until all is delivered
exit($? >> 8);    # 0: all is delivered
