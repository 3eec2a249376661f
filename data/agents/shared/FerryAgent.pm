# Helpers that every migration agent shares: XML text, files replaced atomically (so that the
# destination host, copying them at any moment, never gets half of one), the dumping-status
# document and MD5 sums computed without reading a whole file into memory.
#
# Core perl only: agents run on whatever perl the source host has.
package FerryAgent;

use strict;
use warnings;
use File::Basename ();
# Modules that only some commands need are loaded where they are used: every command pays for
# what is loaded here, and the content list, asked for on every download, needs none of them.

our $VERSION = '1.0';

our @EXPORT_OK = qw(xml_escape xml_element write_atomically write_dumping_status md5_file
  read_config timestamp);

sub import {
    my ($class, @names) = @_;
    my $caller = caller;
    no strict 'refs';
    for my $name (@names) {
        die "FerryAgent does not export $name\n" unless grep { $_ eq $name } @EXPORT_OK;
        *{"${caller}::$name"} = \&{"${class}::$name"};
    }
}

# Text fit for an XML attribute value or element content. Characters that XML 1.0 forbids
# (most control characters) become '?', so a strange file name cannot make the dump unreadable.
sub xml_escape {
    my ($text) = @_;
    $text = '' unless defined $text;
    $text =~ s/&/&amp;/g;
    $text =~ s/</&lt;/g;
    $text =~ s/>/&gt;/g;
    $text =~ s/"/&quot;/g;
    $text =~ s/'/&apos;/g;
    $text =~ s/[\x00-\x08\x0B\x0C\x0E-\x1F]/?/g;
    return $text;
}

# One element on one line. Attributes come as a list of name/value pairs (kept in that order);
# undefined values are left out. Undefined content gives an empty element.
sub xml_element {
    my ($name, $attributes, $content) = @_;
    my $text = "<$name";
    my @pairs = @{ $attributes || [] };
    while (@pairs) {
        my ($key, $value) = splice(@pairs, 0, 2);
        next unless defined $value;
        $text .= sprintf(' %s="%s"', $key, xml_escape($value));
    }
    return "$text/>" unless defined $content;
    return "$text>" . xml_escape($content) . "</$name>";
}

# Replaces $path with $content: a temporary file in the same directory, renamed over the target.
# A reader sees the old file or the new one, never a mix; a crash leaves at most the temporary.
sub write_atomically {
    my ($path, $content, $mode) = @_;
    my $tmp = File::Basename::dirname($path) . '/.' . File::Basename::basename($path) . ".$$.tmp";
    open(my $out, '>', $tmp) or die "cannot write $tmp: $!\n";
    binmode($out);
    print {$out} $content or die "cannot write $tmp: $!\n";
    close($out) or die "cannot write $tmp: $!\n";
    chmod($mode, $tmp) if defined $mode;
    unless (rename($tmp, $path)) {
        my $error = $!;
        unlink($tmp);
        die "cannot rename $tmp to $path: $error\n";
    }
    return 1;
}

sub timestamp {
    require POSIX;
    return POSIX::strftime('%Y-%m-%dT%H:%M:%SZ', gmtime(shift // time()));
}

# The agent's own dumping-status document, which the destination host copies while a dump runs.
# %status: state (running, finished, failed), started (epoch), total and done (object counts),
# and optionally object and object_type (what is being dumped now) and message.
sub write_dumping_status {
    my ($path, %status) = @_;
    my $xml = qq(<?xml version="1.0" encoding="UTF-8"?>\n);
    $xml .= '<dumping-status'
      . sprintf(' state="%s"', xml_escape($status{state}))
      . sprintf(' pid="%d"', $$)
      . sprintf(' started="%s"', timestamp($status{started}))
      . sprintf(' updated="%s"', timestamp()) . ">\n";
    $xml .= '  ' . xml_element('progress', [ total => $status{total} || 0, done => $status{done} || 0 ]) . "\n";
    if (defined $status{object}) {
        $xml .= '  '
          . xml_element('current-object', [ type => $status{object_type} || 'domain' ], $status{object})
          . "\n";
    }
    $xml .= '  ' . xml_element('message', [], $status{message}) . "\n" if defined $status{message};
    $xml .= "</dumping-status>\n";
    write_atomically($path, $xml, 0644);
}

# MD5 of a file as 32 lower-case hexadecimal digits, read in blocks.
sub md5_file {
    my ($path) = @_;
    open(my $in, '<', $path) or die "cannot read $path: $!\n";
    binmode($in);
    require Digest::MD5;
    my $md5 = Digest::MD5->new;
    $md5->addfile($in);
    close($in);
    return $md5->hexdigest;
}

# "key = value" lines; blank lines and lines starting with '#' are skipped. A missing file gives
# an empty hash.
sub read_config {
    my ($path) = @_;
    my %config;
    open(my $in, '<', $path) or return %config;
    while (my $line = <$in>) {
        next if $line =~ /^\s*(#|$)/;
        $config{$1} = $2 if $line =~ /^\s*([A-Za-z_][\w-]*)\s*=\s*(.*?)\s*$/;
    }
    close($in);
    return %config;
}

1;
